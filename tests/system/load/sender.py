#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Applications that send without end, in a process of their own: sender.py KIND PORT CONNECTIONS

Says so when all are connected, and how many bytes they have sent when the server has gone.
"""

import os
import pathlib
import selectors
import socket
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from wire import IGNORED, address_number, message, report  # noqa: E402

PIECE, PAUSE = 5, 0.1  # bytes of a trickle, and seconds to the next ones
BLOCK = 1 << 16

REPORT = report(b"load" + bytes(4), address_number("127.1.0.1"))  # of the tests' first radio
VALID = message(IGNORED) + message(IGNORED, bytes(277))  # the shortest and the longest
RUBBISH = b"rubbish!"

TRICKLE, FLOOD, RUBBISH_FLOOD = "trickle", "flood", "rubbish"


class Sender:
    """Below the server in priority: two processors are to do for both."""

    def __init__(self, kind, port, connections, preexec):
        def prepare():
            preexec()
            os.nice(10)

        self.kind = kind
        command = [sys.executable, "-B", os.path.abspath(__file__), kind, str(port), str(connections)]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, preexec_fn=prepare)
        if self.process.stdout.readline() != b"connected\n":
            raise AssertionError(f"{kind}: cannot connect")

    def is_sending(self):
        return self.process.poll() is None

    def bytes_sent(self):
        """Once the server has gone."""
        return int(self.process.communicate()[0])

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


def trickle(applications):
    """Reports in pieces, each of which ends in the middle of one: there is always a rest to wait for."""
    piece, position, sent, due = REPORT[:PIECE - 1], PIECE - 1, 0, time.monotonic()
    try:
        while True:
            for application in applications:
                application.sendall(piece)
            sent += len(piece) * len(applications)
            piece = (REPORT * 2)[position:position + PIECE]
            position = (position + PIECE) % len(REPORT)
            due += PAUSE
            time.sleep(max(due - time.monotonic(), 0))
    except OSError:
        return sent


def flood(applications, piece):
    content = piece * (BLOCK // len(piece))
    selector, positions, sent = selectors.DefaultSelector(), {}, 0
    for application in applications:
        selector.register(application, selectors.EVENT_WRITE)
        positions[application] = 0
    try:
        while True:
            for key, _ in selector.select():
                position = positions[key.fileobj]
                count = key.fileobj.send(memoryview(content)[position:])
                positions[key.fileobj] = (position + count) % len(content)
                sent += count
    except OSError:
        return sent


def main():
    kind, port, connections = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    applications = [socket.create_connection(("127.0.0.1", port)) for _ in range(connections)]
    print("connected", flush=True)
    if kind == TRICKLE:
        sent = trickle(applications)
    else:
        for application in applications:
            application.setblocking(False)
        sent = flood(applications, VALID if kind == FLOOD else RUBBISH)
    print(sent)


if __name__ == "__main__":
    main()
