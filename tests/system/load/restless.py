#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Applications that never stop sending: restless.py [--trickling N] [--flooding N] QUILLMERE

Three servers at once: one has applications that send reports bit by bit, one has applications that send valid
messages as fast as they are taken, one has such that send rubbish. Each goes on acknowledging radios, lets a pending
registration lapse and stops in order while they go on sending. Radios that come together still share their commits.
"""

import contextlib
import pathlib
import sys
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from foreground import die_with_this_run, wait_for  # noqa: E402
from scene import FIRST_ADDRESS, Scene, check, run  # noqa: E402
from sender import FLOOD, RUBBISH_FLOOD, TRICKLE, Sender  # noqa: E402
from wire import PATIENCE, UNCONFIRMED, Application, registration  # noqa: E402

RADIOS = 8
BURST = 200  # of registrations at once
PENDING = 1000  # the radio whose registration is never confirmed
LAPSE = 17  # seconds, then it is forgotten
SUID = b"\x12\x34\x56\x78\x9a\xbc\xde"


class Target:
    """A server, its restless applications, and one that reads."""

    def __init__(self, program, folder, kind, connections, closing):
        self.kind = kind
        self.scene = closing.enter_context(Scene(program, folder / kind))
        self.scene.register(range(RADIOS))
        self.reader = closing.enter_context(Application(self.scene.ports[1]))
        self.sender = Sender(kind, self.scene.ports[1], connections, die_with_this_run)
        closing.callback(self.sender.kill)
        self.scene.radios.send(FIRST_ADDRESS + PENDING, registration(Scene.esn(PENDING), SUID, pending=True))
        self.scene.await_acknowledgements({Scene.esn(PENDING)})
        self.is_announced = self.has_lapsed = False
        self.reports = 0

    def go_on(self):
        self.scene.register(range(RADIOS))
        for notice in self.reader.receive():
            if notice.esn == Scene.esn(PENDING):
                self.has_lapsed = self.has_lapsed or (self.is_announced and not notice.pending)
                self.is_announced = True
            elif notice.availability == UNCONFIRMED:
                self.reports += 1
        self.scene.check_records()
        self.scene.server.forget_records()

    def is_done(self):
        """Of the trickled reports some have to have been understood."""
        return self.has_lapsed and (self.reports > 0 or self.kind != TRICKLE)

    def shares_commits(self):
        """A burst may come one by one on a busy machine, but not every burst."""
        before = self.scene.commits()
        self.scene.register(range(BURST))
        return self.scene.commits() - before < BURST / 2

    def stop(self):
        wait_for(self.shares_commits, f"{self.kind}: a burst of radios to share commits")
        check(self.sender.is_sending(), f"{self.kind}: nobody sends any more")
        self.scene.stop()
        print(f"{self.kind}: {self.scene.acknowledged} registrations were acknowledged meanwhile, "
              f"{self.sender.bytes_sent()} bytes taken", flush=True)


def test(program, folder, options):
    with contextlib.ExitStack() as closing:
        targets = [Target(program, folder, kind, count, closing)
                   for kind, count in ((TRICKLE, options.trickling), (FLOOD, options.flooding),
                                       (RUBBISH_FLOOD, options.flooding))]
        deadline = time.monotonic() + LAPSE + PATIENCE
        while not all(target.is_done() for target in targets):
            late = [target.kind for target in targets if not target.is_done()]
            check(time.monotonic() < deadline, f"waited in vain for a registration to lapse, or a report: {late}")
            for target in targets:
                target.go_on()
        for target in targets:
            target.stop()


if __name__ == "__main__":
    run(__doc__, test, [("trickling", 100, "applications that trickle"),
                        ("flooding", 20, "applications that flood, of each kind")])
