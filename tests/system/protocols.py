#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Plays the examples of docs/protocols.md against the server: protocols.py QUILLMERE PROTOCOLS.MD"""

import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import time

PATIENCE = 10  # seconds


def examples(path):
    with open(path, encoding="utf-8") as document:
        blocks = re.findall(r"^```hex (\S+)\n(.*?)^```", document.read(), re.M | re.S)
    return {name: bytes.fromhex(content) for name, content in blocks}


def free_port(kind):
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def receive_exactly(stream, count):
    data = b""
    while len(data) < count:
        more = stream.recv(count - len(data))
        if not more:
            raise ConnectionError("the server has closed the connection")
        data += more
    return data


def receive_message(stream):
    header = receive_exactly(stream, 8)
    return header + receive_exactly(stream, int.from_bytes(header[6:8], "little"))


def check(what, actual, expected):
    if actual != expected:
        sys.exit(f"{what}: got {actual.hex(' ')}, the document says {expected.hex(' ')}")
    print(f"as the document says: {what}")


def connect(port, server):
    deadline = time.monotonic() + PATIENCE
    while True:
        try:
            return socket.create_connection(("127.0.0.1", port), PATIENCE)
        except ConnectionRefusedError:
            if server.poll() is not None or time.monotonic() > deadline:
                sys.exit("the server does not listen")
            time.sleep(0.05)


def play(blocks, radio_port, application_port, server):
    application = connect(application_port, server)
    radio = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    radio.bind(("127.0.0.2", 0))
    radio.settimeout(PATIENCE)

    radio.sendto(blocks["send-radio"], ("127.0.0.1", radio_port))
    check("acknowledgement", radio.recv(300), blocks["receive-radio"])
    check("notice", receive_message(application), blocks["receive-application"])
    with connect(application_port, server) as second:
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
        home = os.path.join(folder, "Brackwater", "Quill Mere")
        os.makedirs(home)
        radio_port, application_port = free_port(socket.SOCK_DGRAM), free_port(socket.SOCK_STREAM)
        with open(os.path.join(home, "qmr.cfg"), "w", encoding="ascii") as configuration:
            configuration.write(f"radioRegistrationPort={radio_port}\napplicationPort={application_port}\n")
        events = os.path.join(folder, "events")
        environment = dict(os.environ, QUILLMERE_APPDATA=folder, QUILLMERE_EVENTLOG=events)
        server = subprocess.Popen([program, "-exec"], env=environment)
        try:
            play(examples(document), radio_port, application_port, server)
        finally:
            server.kill()
            server.wait()
        with open(events, encoding="utf-8") as log:
            messages = [json.loads(line)["message"] for line in log]
        if "QMRS Protocol error: invalid message (2)" not in messages:
            sys.exit("the discovery request was no datagram of opcode 4")


if __name__ == "__main__":
    main()
