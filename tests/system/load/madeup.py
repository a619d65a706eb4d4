#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""One address sends registrations and deregistrations, each with another ESN: madeup.py [--esns N] QUILLMERE

Only the latest of these radios exists; what the server knew of the others is gone from its memory too.
"""

import pathlib
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from scene import FIRST_ADDRESS, Scene, check, run  # noqa: E402
from wire import registration  # noqa: E402

TOGETHER = 64  # registrations under way, and as many deregistrations
REVIEW = 200  # lots, then the memory is looked at and the records are dropped
WARM_UP = 20000  # ESNs
GROWTH = 2 << 20
SUID = b"\x12\x34\x56\x78\x9a\xbc\xde"


def send_lot(scene, first):
    """Twice TOGETHER made-up ESNs, from number first on."""
    awaited = set()
    for number in range(first, first + TOGETHER):
        esn = b"m" + number.to_bytes(7, "big")
        awaited.add(esn)
        scene.radios.send(FIRST_ADDRESS, registration(esn, SUID, b"\x01"))
        scene.deregister_unknown(b"d" + number.to_bytes(7, "big"))
    scene.await_acknowledgements(awaited)


def test(program, folder, options):
    with Scene(program, folder) as scene:
        sent, lots, warm, most, unknown = 0, 0, None, 0, 0
        while sent < WARM_UP + options.esns:
            for _ in range(REVIEW):
                send_lot(scene, sent)
                sent += 2 * TOGETHER
            scene.check_records()
            unknown += sum(record.startswith("Unknown Radio") for record in scene.server.records())
            scene.server.forget_records()
            lots += 1
            if sent >= WARM_UP:
                most = max(most, scene.server.resident())
                warm = warm or most
        check(unknown >= sent // 2 - TOGETHER, f"{unknown} of {sent // 2} deregistrations were of unknown radios")
        check(scene.server.has_a_sanitizer() or most - warm < GROWTH,
              f"{sent} made-up ESNs took {(most - warm) >> 10} KiB")
        print(f"{sent} made-up ESNs: {warm >> 10} KiB resident after {WARM_UP}, {most >> 10} KiB at most since")
        scene.stop()


if __name__ == "__main__":
    run(__doc__, test, [("esns", 200000, "made-up ESNs")])
