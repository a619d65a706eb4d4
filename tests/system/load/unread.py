#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Applications that never read, while radios change: unread.py [--unread N] QUILLMERE

The server's memory stays bounded, and an application that reads is told of every change, in order. What the others
lose is recorded: once they do read, each finds whole notices, and what is missing is as much as the records say.
"""

import pathlib
import socket
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from foreground import wait_for  # noqa: E402
from scene import Crowd, Scene, check, run, want_descriptors  # noqa: E402
from wire import REGISTERED, notice, split_notice  # noqa: E402

RADIOS = 32  # that register at once
SERVICES = b"\x01\x02\x03" * 85  # the longest notice
NOTICE = len(notice(bytes(8), bytes(7), "0.0.0.0", REGISTERED, SERVICES))
RECEIVE_BUFFER, SEGMENT = 4096, 256  # the system's own buffers, which come first, hold little
MEMORY = 400 << 20
LOST = "Network error: write message failed"
AFTERWARDS = 3  # changes by all radios, once notices are lost
ENDLESS = 2 << 30  # bytes of notices, and still none is lost


def whole_notices(stream):
    check(len(stream) % NOTICE == 0, "an application was sent a part of a notice")
    return [bytes(stream[i:i + NOTICE]) for i in range(0, len(stream), NOTICE)]


def test(program, folder, options):
    want_descriptors(options.unread + 100)
    with Scene(program, folder) as scene, Crowd(scene.ports[1]) as readers, Crowd(scene.ports[1]) as unread:
        readers.connect(1)
        unread.connect(options.unread, (socket.SOL_SOCKET, socket.SO_RCVBUF, RECEIVE_BUFFER),
                       (socket.IPPROTO_TCP, socket.TCP_MAXSEG, SEGMENT))
        (reader,) = readers.received
        # One that is accepted later finds in its table what the others were told one by one.
        wait_for(lambda: sum(record.startswith("Application connected") for record in scene.server.records()) ==
                 options.unread + 1, "all applications to be accepted")
        told = []  # of what all are to be told, in order

        def change():
            scene.register(range(RADIOS), SERVICES)
            told.extend(scene.known[number] for number in range(RADIOS))
            readers.receive()

        def lost():
            return scene.server.event_log.read_bytes().count(LOST.encode("ascii"))

        while not lost():
            check(len(told) * NOTICE * options.unread < ENDLESS, "nothing is ever lost: nothing was tested")
            for _ in range(10):
                change()
        for _ in range(AFTERWARDS):
            change()
        resident = scene.server.resident()
        readers.receive_until(lambda: len(readers.received[reader]) >= len(told) * NOTICE, "all notices")
        check(readers.received[reader] == b"".join(told), "the reader was told something else than what has changed")
        check(scene.server.has_a_sanitizer() or resident < MEMORY, f"{resident >> 20} MiB are resident")

        # Nothing changes any more. Each is told of all but what the records say, and then of a last change.
        missing = lost()
        wanted = (len(told) * options.unread - missing) * NOTICE
        for application in unread.received:
            application.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        unread.receive_until(lambda: sum(map(len, unread.received.values())) >= wanted,
                             "what was kept for those that did not read")
        scene.register([RADIOS])
        last = scene.known[RADIOS]
        unread.receive_until(lambda: all(one.endswith(last) for one in unread.received.values()), "the last notice")
        kept = 0
        for stream in unread.received.values():
            notices = whole_notices(stream[:-len(last)])
            kept += len(notices)
            order = [split_notice(one).suid for one in notices]
            check(order == sorted(set(order)), "notices came twice, or in another order")
            check(set(notices) <= set(told), "a notice is of no change")
        check(kept == len(told) * options.unread - missing, f"{len(told) * options.unread - kept} notices are missing, "
                                                            f"{missing} are recorded as lost")
        print(f"{len(told)} changes: one reader was told of all, {options.unread} that did not read lost {missing} of "
              f"{len(told) * options.unread} notices; {resident >> 20} MiB were resident")
        scene.stop()


if __name__ == "__main__":
    run(__doc__, test, [("unread", 200, "applications that do not read")])
