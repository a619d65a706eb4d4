#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A crowd of applications comes, is told, and leaves at once, again and again: crowd.py [--applications N] QUILLMERE"""

import pathlib
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from foreground import wait_for  # noqa: E402
from scene import Crowd, Scene, check, limit_descriptors, run, want_descriptors  # noqa: E402

RADIOS = 20
VISITS = 40  # of a part of them, after one of all
SETTLED, GROWTH = 3, 2 << 10  # visits, then it grows no more; bytes for each application of the first
MORE = 200  # descriptors, for everything else


def come_and_go(scene, count):
    """Returns the bytes that were resident while they were there."""
    with Crowd(scene.ports[1]) as crowd:
        crowd.connect(count)
        wanted = scene.table()
        for _ in range(3):  # the table; a change; another, which shows that nothing came behind the first
            crowd.receive_until(lambda: all(len(one) >= len(wanted) for one in crowd.received.values()),
                                "the same at each application")
            scene.register([RADIOS // 2])
            wanted += scene.known[RADIOS // 2]
        crowd.receive_until(lambda: all(len(one) >= len(wanted) for one in crowd.received.values()), "the last change")
        check(all(one == wanted for one in crowd.received.values()), "an application was told something else")
        check(scene.server.descriptors() > count, "the descriptors are counted wrong")
        return scene.server.resident()


def test(program, folder, options):
    want_descriptors(options.applications + MORE)
    with Scene(program, folder, limit_descriptors(options.applications + MORE)) as scene:
        scene.register(range(RADIOS))
        before = scene.server.descriptors()
        resident = []
        visits = [options.applications] + VISITS * [options.applications // 10]
        for count in visits:
            resident.append(come_and_go(scene, count))
            scene.register(range(RADIOS))
            wait_for(lambda: scene.server.descriptors() <= before, "the server to close what it opened for them")
            check(scene.server.descriptors() == before, "the server has lost descriptors of its own")
        check(scene.server.has_a_sanitizer() or resident[-1] - resident[SETTLED] < GROWTH * options.applications,
              f"the memory grows from visit to visit: {resident}")
        scene.check_rows()
        scene.stop()
        records = scene.server.records()
        for text in ("Application connected from", "Application disconnected from"):
            count = sum(record.startswith(text) for record in records)
            check(count == sum(visits), f"{count} records of {text}")
        check(not any(record.startswith("Network error") for record in records), "there were network errors")
        print(f"{options.applications} applications, then {VISITS} times a tenth of them: each was told of {RADIOS} "
              f"radios and 3 changes; {resident[0] >> 10} KiB were resident, {resident[-1] >> 10} at last")


if __name__ == "__main__":
    run(__doc__, test, [("applications", 2000, "how many")])
