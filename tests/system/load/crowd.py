#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A crowd of applications comes, is told, and leaves at once: crowd.py [--applications N] QUILLMERE"""

import pathlib
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from foreground import wait_for  # noqa: E402
from scene import Crowd, Scene, check, limit_descriptors, run, want_descriptors  # noqa: E402

RADIOS = 20
MORE = 200  # descriptors, for everything else


def test(program, folder, options):
    want_descriptors(options.applications + MORE)
    with Scene(program, folder, limit_descriptors(options.applications + MORE)) as scene:
        scene.register(range(RADIOS))
        before = scene.server.descriptors()
        with Crowd(scene.ports[1]) as crowd:
            crowd.connect(options.applications)
            wanted = scene.table()
            crowd.receive_until(lambda: all(len(one) >= len(wanted) for one in crowd.received.values()),
                                "the table at each application")
            for _ in range(2):  # the second shows that nothing came behind the first
                scene.register([RADIOS // 2])
                wanted += scene.known[RADIOS // 2]
                crowd.receive_until(lambda: all(len(one) >= len(wanted) for one in crowd.received.values()),
                                    "the change at each application")
            check(all(one == wanted for one in crowd.received.values()), "an application was told something else")
            resident = scene.server.resident()
            check(scene.server.descriptors() >= before + options.applications, "the descriptors are counted wrong")
        scene.register(range(RADIOS))
        wait_for(lambda: scene.server.descriptors() <= before, "the server to close what it opened for them")
        check(scene.server.descriptors() == before, "the server has lost descriptors of its own")
        scene.check_rows()
        scene.stop()
        records = scene.server.records()
        for text in ("Application connected from", "Application disconnected from"):
            count = sum(record.startswith(text) for record in records)
            check(count == options.applications, f"{count} records of {text}")
        check(not any(record.startswith("Network error") for record in records), "there were network errors")
        print(f"{options.applications} applications: each was told of {RADIOS} radios and 2 changes; "
              f"{resident >> 20} MiB were resident, {before} descriptors open before and after")


if __name__ == "__main__":
    run(__doc__, test, [("applications", 2000, "how many")])
