#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""More applications than the server has descriptors for, again and again: descriptors.py [--rounds N] QUILLMERE

Those that do not fit are served once others have left. Meanwhile radios register: each that is acknowledged has its
row, so that the database never lacked a descriptor.
"""

import pathlib
import sys
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from foreground import wait_for  # noqa: E402
from scene import Crowd, Scene, check, limit_descriptors, run  # noqa: E402
from wire import split_notice, take_notices  # noqa: E402

DESCRIPTORS = 64  # all of the server's
NEARLY_ALL = 44  # what it may take for applications, but for a few that the database has now and then
APPLICATIONS = 80
QUIET = 0.3  # seconds, long beside a tick


def check_views(scene, crowd, served):
    """Each of them knows every radio as it was acknowledged last, once it has been told of the last change."""
    newest = max(scene.known.values(), key=lambda latest: split_notice(latest).suid)
    crowd.receive_until(lambda: all(crowd.received[one].endswith(newest) for one in served), "the newest notice")
    wanted = {told.esn: told.suid for told in map(split_notice, scene.known.values())}
    for application in served:
        view = {told.esn: told.suid for told in take_notices(bytearray(crowd.received[application]))}
        check(view == wanted, f"an application knows {len(view)} of {len(wanted)} radios, or in another state")


def serve_some(scene, crowd):
    """Radios register until the applications have taken what they can; those that were served leave."""
    number = len(scene.known)

    def is_full():
        nonlocal number
        scene.register([number, number // 2])
        number += 1
        crowd.receive()
        served = len(crowd.served())
        return served and (served == len(crowd.received) or scene.server.descriptors() >= NEARLY_ALL)

    wait_for(is_full, "an application to be served")
    scene.register(range(number - 5, number + 15))
    crowd.receive()
    served = crowd.served()
    check(len(served) < DESCRIPTORS, "all applications fit: nothing was tested")
    check_views(scene, crowd, served)
    crowd.leave(served)
    return len(served)


def sleeps(server):
    before = server.ticks()
    time.sleep(QUIET)
    return server.ticks() == before


def test(program, folder, options):
    with Scene(program, folder, limit_descriptors(DESCRIPTORS)) as scene:
        scene.register(range(5))
        for number in range(options.rounds):
            with Crowd(scene.ports[1]) as crowd:
                crowd.connect(APPLICATIONS)
                lots = [serve_some(scene, crowd)]
                # Others wait to be accepted: a server that tries it over and over is never asleep.
                wait_for(lambda: sleeps(scene.server), "the server to sleep while applications wait")
                while crowd.received:
                    lots.append(serve_some(scene, crowd))
            scene.check_rows()
            print(f"round {number + 1}: {APPLICATIONS} applications served in lots of {lots}; {len(scene.known)} "
                  f"radios stored, {scene.server.ticks()} ticks of processor time so far", flush=True)
        scene.stop()


if __name__ == "__main__":
    run(__doc__, test, [("rounds", 5, "how often all applications come")])
