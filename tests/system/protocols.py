#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Plays the examples of docs/protocols.md against the server: protocols.py QUILLMERE PROTOCOLS.MD"""

import pathlib
import re
import socket
import sys
import tempfile

sys.dont_write_bytecode = True

from foreground import Server  # noqa: E402
from wire import PATIENCE, free_port, receive_message  # noqa: E402


def examples(path):
    with open(path, encoding="utf-8") as document:
        blocks = re.findall(r"^```hex (\S+)\n(.*?)^```", document.read(), re.M | re.S)
    return {name: bytes.fromhex(content) for name, content in blocks}


def check(what, actual, expected):
    if actual != expected:
        sys.exit(f"{what}: got {actual.hex(' ')}, the document says {expected.hex(' ')}")
    print(f"as the document says: {what}")


def play(blocks, radio_port, application_port):
    def connect():
        return socket.create_connection(("127.0.0.1", application_port), PATIENCE)

    application = connect()
    radio = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    radio.bind(("127.0.0.2", 0))
    radio.settimeout(PATIENCE)

    radio.sendto(blocks["send-radio"], ("127.0.0.1", radio_port))
    check("acknowledgement", radio.recv(300), blocks["receive-radio"])
    check("notice", receive_message(application), blocks["receive-application"])
    with connect() as second:
        check("snapshot", receive_message(second), blocks["receive-application"])
    application.sendall(blocks["send-application"])
    check("notice of a report", receive_message(application), blocks["receive-application-report"])
    # A host cannot be server and radio at the same port: the request comes back to the server, which takes
    # none from a radio.
    radio.sendto(blocks["discovery"], ("127.0.0.1", radio_port))
    radio.sendto(blocks["send-radio-later"], ("127.0.0.1", radio_port))
    check("notice of a deregistration", receive_message(application), blocks["receive-application-gone"])


def main():
    program, document = sys.argv[1:]
    with tempfile.TemporaryDirectory() as folder:
        radio_port, application_port = free_port(socket.SOCK_DGRAM), free_port(socket.SOCK_STREAM)
        settings = f"radioRegistrationPort={radio_port}\napplicationPort={application_port}\n"
        server = Server(program, pathlib.Path(folder), settings)
        try:
            server.start()
            play(examples(document), radio_port, application_port)
        finally:
            server.kill()
        if "QMRS Protocol error: invalid message (2)" not in server.records():
            sys.exit("the discovery request was no datagram of opcode 4")


if __name__ == "__main__":
    main()
