#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Works the server for a long time: soak.py [options] QUILLMERE

Radios register, move, take addresses over, await confirmation and leave; applications follow, read slowly, come, go and
report radios; another program locks the database; the server is stopped, killed and started. Every acknowledged
registration has to be stored whenever the server has gone, and at each reckoning the radios, the rows and what every
application was told have to be the same. In the second half the server runs on, so that growth has time to show.
"""

import argparse
import os
import pathlib
import random
import sys
import time

sys.dont_write_bytecode = True
sys.path[1:1] = [str(pathlib.Path(__file__).resolve().parents[1] / folder) for folder in ("", "crash")]

from audience import Audience, Viewer, wait  # noqa: E402
from fleet import FIRST_ADDRESS, Fleet  # noqa: E402
from foreground import memory_folder  # noqa: E402
from host import UP, Host, Locker  # noqa: E402
from wire import PATIENCE, REGISTERED  # noqa: E402

LOCK, STOP, KILL, RECKON = "lock", "stop", "kill", "reckon"
REPORT_EVERY = 10  # seconds
STEP = 0.005  # seconds
GROWTH = 512  # KiB in one life, from its first reckoning on by which each radio has registered some times
SETTLED = 5  # registrations by each radio


class Soak:
    def __init__(self, program, folder, options, chance):
        self.options = options
        self.random = chance
        self.host = Host(program, folder)
        self.fleet = Fleet(options.radios, self.host.ports[0], chance)
        self.locker = Locker(self.host.server.database)
        self.audience = None
        self.told_of_all = False  # since the applications have connected
        self.owes = False  # perhaps: rows that the server could not write because of a lock
        self.kill_at = None
        self.begun = self.reported = self.next_line = time.monotonic()
        self.events = []
        self.reckonings = 0
        self.growth = 0  # KiB, the most in one life
        self.before_life = 0  # registrations
        self.baseline = None  # of this life: memory, descriptors

    def close(self):
        self.locker.end()
        if self.audience:
            self.audience.close()
        self.fleet.__exit__()
        self.host.close()

    def plan(self, seconds):
        """When what is to happen: at random, each kind spread over its time, and at least once."""
        def spread(kind, per_minute, until):
            count = max(1, round(per_minute * until / 60)) if per_minute else 0
            return [((at + self.random.random()) / count * until, kind) for at in range(count)]

        # The last life's growth counts from early in its half, however few reckonings there are.
        first = [(share * seconds, RECKON) for share in (0.5, 0.6)]
        self.events = sorted(first + spread(LOCK, self.options.locks, seconds) +
                             spread(STOP, self.options.stops, seconds / 2) +
                             spread(KILL, self.options.kills, seconds / 2) +
                             spread(RECKON, self.options.reckonings, seconds))

    def run(self, seconds):
        self.plan(seconds)
        self.launch()
        while self.events or self.elapsed() < seconds:
            self.step(is_busy=True)
            if self.events and self.events[0][0] <= self.elapsed() and self.happens(self.events[0][1]):
                self.events.pop(0)
        self.wait_until(self.is_settled, "the server to come up")
        self.reckon()
        self.host.ask_to_stop()
        self.wait_until(lambda: self.audience is None, "the server to stop")

    def elapsed(self):
        return time.monotonic() - self.begun

    def is_settled(self):
        return self.host.is_up() and self.told_of_all and not self.locker.is_on()

    def happens(self, kind):
        """Returns whether it has; otherwise it is tried again."""
        if not self.is_settled():
            return False
        if kind == RECKON:
            self.reckon()
        elif kind == LOCK:
            return self.lock()
        elif kind == STOP:
            self.host.ask_to_stop()
            self.told_of_all = False
        elif self.kill_at is None:
            # What is owed because of a lock is lost by a crash, and may be.
            if self.owes:
                self.reckon()
            self.kill_at = time.monotonic() + self.random.uniform(0, 1)
            return False
        elif self.kill_at > time.monotonic():
            return False
        else:
            self.kill_at = None
            self.host.kill()
            self.server_has_gone()
            self.launch()
        return True

    def lock(self):
        seconds = self.random.uniform(0, self.options.lock_seconds)
        is_locked = self.locker.begin(self.random.choice(Locker.WAYS), seconds)
        self.owes = self.owes or is_locked
        self.host.was_locked = self.host.was_locked or is_locked
        return is_locked

    # The course of things

    def step(self, is_busy):
        wait([*self.fleet.ports, *([self.audience.observer] if self.audience else [])], STEP)
        self.fleet.receive()
        if self.audience:
            self.audience.go_on()
            if self.host.is_up() and self.audience.have_ended():
                raise AssertionError("the server has closed an application's connection")
        view = self.audience.observer.view if self.audience else {}
        beacon = self.fleet.beacon
        if not self.told_of_all and self.host.is_up() and self.audience:
            self.told_of_all = beacon.availability == REGISTERED and view.get(beacon.esn) == beacon.notice()
        for radio in self.fleet.go_on(view, self.told_of_all, self.host.is_up()):
            self.audience.report(radio)
        if self.host.go_on():
            if self.host.phase == UP:
                self.gather()
            else:
                self.server_has_gone()
                if self.events or is_busy:
                    self.launch()
        if self.locker.is_over():
            self.locker.end()
        if is_busy:
            self.begin(view)
        while self.next_line <= time.monotonic():
            self.next_line += REPORT_EVERY
            self.print_line()

    def begin(self, view):
        """What radios and applications do of their own accord."""
        now = time.monotonic()
        for _ in range(self.shares(now, self.options.rate)):
            self.fleet.begin_at_random(view, self.told_of_all)
        if self.told_of_all and self.host.is_up():
            self.audience.invite()
            for _ in range(self.shares(now, self.options.reports)):
                self.fleet.reported(view)  # which is sent with the next step
        self.last = now

    def shares(self, now, rate):
        """How many of so many a second fall between the last step and this one, at random."""
        expected = rate * min(now - self.last, 1)
        return int(expected) + (self.random.random() < expected % 1)

    def launch(self):
        self.last = time.monotonic()
        self.before_life, self.baseline = self.fleet.registrations, None
        # Every other start meets a lock, as a program that is looking at the database would.
        is_locked = self.host.lives > 0 and self.options.locks and self.random.random() < 0.5 and self.lock()
        self.host.launch()
        self.host.was_locked = is_locked

    def gather(self):
        self.audience = Audience(self.host.ports[1], self.random, self.fleet.told, self.options.slow,
                                 self.options.visits)
        self.told_of_all = False
        self.show_beacon()

    def show_beacon(self):
        if self.fleet.beacon.operation is None:
            self.fleet.register(self.fleet.beacon, FIRST_ADDRESS)

    def server_has_gone(self):
        self.fleet.receive()
        if self.audience:
            self.audience.read_rest()
            if self.told_of_all:
                self.fleet.end_what_is_over(self.audience.observer.view)
            self.audience.close()
        self.audience, self.told_of_all = None, False
        self.host.read_records()
        self.fleet.check_stored(self.host.left_rows())
        self.fleet.server_has_gone()

    def wait_until(self, condition, what, patience=3 * PATIENCE):
        deadline = time.monotonic() + patience
        while not condition():
            if time.monotonic() > deadline:
                raise AssertionError(f"waited in vain for {what}")
            self.step(is_busy=False)

    # The reckoning

    def reckon(self):
        self.audience.dismiss()
        self.wait_until(lambda: not self.fleet.busy, "the radios to end what they have begun")
        self.show_beacon()
        self.wait_until(lambda: not self.fleet.busy, "the beacon's acknowledgement")
        differences = [""]

        def agree():
            self.audience.read_all()
            differences[:] = self.differences()
            return not differences

        try:
            self.wait_until(agree, "all to agree")
        except AssertionError as failure:
            raise AssertionError(f"{failure}: {'; '.join(differences)}") from failure
        self.owes = False
        self.reckonings += 1
        self.host.read_records()
        self.host.keep_log_short()
        self.measure()

    def differences(self):
        """Between what the radios know and everything else, in words: a registration may just be lapsing, and the rows
        may have to wait a second after a lock."""
        wanted, found = self.fleet.notices(), []
        told = dict(self.audience.views())
        if all(view == wanted for view in told.values()):
            told["table"] = self.table()
        for name, view in told.items():
            wrong = [esn for esn in wanted.keys() | view.keys() if wanted.get(esn) != view.get(esn)]
            if wrong:
                found.append(f"{name}: {len(wrong)} of {len(wanted)} radios, the first is shown as "
                             f"{view.get(wrong[0])}, and is {wanted.get(wrong[0])}")
        if not found:
            rows, wanted = self.host.rows(), self.fleet.rows()
            wrong = [esn for esn in wanted.keys() | rows.keys() if wanted.get(esn) != rows.get(esn)]
            if wrong:
                found.append(f"rows: {len(wrong)} of {len(wanted)}, the first is {rows.get(wrong[0])}, "
                             f"the radio {wanted.get(wrong[0])}")
        return found

    def table(self):
        """What an application that connects now is told."""
        with Viewer(self.host.ports[1]) as viewer:
            deadline = time.monotonic() + PATIENCE
            while self.fleet.beacon.esn not in viewer.view and time.monotonic() < deadline:
                wait([viewer], 0.1)
                viewer.read()
            return viewer.view

    def measure(self):
        """Nothing waits to be read or written any more: what there is now was not given back."""
        surplus = self.host.descriptors() - self.audience.count()
        if self.fleet.registrations - self.before_life < SETTLED * self.options.radios:
            return
        if self.baseline is None:
            self.baseline = self.host.memory(), surplus
        # One that has just left may still be closing.
        self.wait_until(lambda: self.host.descriptors() - self.audience.count() <= self.baseline[1],
                        "the server to close what it has opened")
        grown = (self.host.memory() - self.baseline[0]) >> 10
        self.growth = max(self.growth, grown)
        if grown > GROWTH and not self.host.server.has_a_sanitizer():
            raise AssertionError(f"the memory has grown by {grown} KiB, from {self.baseline[0] >> 10} KiB")

    def print_line(self):
        since, self.reported = self.reported, time.monotonic()
        latencies, self.fleet.latencies = sorted(self.fleet.latencies), []
        if latencies:
            half, most = (1000 * latencies[int(share * (len(latencies) - 1))] for share in (0.5, 0.99))
            answered = (f"{len(latencies) / (self.reported - since):.0f}/s acknowledged in {half:.1f} ms (half), "
                        f"{most:.0f} ms (99 %), {1000 * latencies[-1]:.0f} ms (all)")
        else:
            answered = "none acknowledged"
        if self.host.is_up():
            self.host.read_records()
            cost = f"{self.host.memory() >> 10} KiB, {self.host.descriptors()} descriptors"
        else:
            cost = f"the server is {self.host.phase}"
        print(f"{self.elapsed():6.0f} s: {self.fleet.registrations} registrations, {answered}; {cost}; "
              f"{len(self.fleet.notices())} radios, {self.audience.count() if self.audience else 0} applications, "
              f"{self.host.records} records, {self.locker.count} locks, {self.host.stops} stops, "
              f"{self.host.kills} kills, {self.reckonings} reckonings", flush=True)


def main():
    arguments = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    arguments.add_argument("program")
    length = arguments.add_mutually_exclusive_group()
    length.add_argument("--minutes", type=float, default=10)
    length.add_argument("--hours", type=float)
    for name, default, text in (
            ("radios", 200, "how many"), ("rate", 100, "things that radios begin, a second"),
            ("slow", 4, "applications that read slowly"), ("visits", 2, "of applications, a second"),
            ("reports", 2, "of radios by an application, a second"),
            ("locks", 4, "of the database, a minute"), ("lock-seconds", 3, "that a lock lasts, at most"),
            ("stops", 1, "of the server, a minute, in the first half"), ("kills", 1, "likewise"),
            ("reckonings", 2, "a minute")):
        arguments.add_argument(f"--{name}", type=float if name != "radios" and name != "slow" else int, default=default,
                               help=f"{text} (default {default})")
    arguments.add_argument("--seed", type=int, default=random.SystemRandom().getrandbits(32))
    options = arguments.parse_args()
    print(f"seed {options.seed}", flush=True)
    failure = None
    with memory_folder() as folder:
        soak = Soak(os.path.abspath(options.program), pathlib.Path(folder), options, random.Random(options.seed))
        try:
            soak.run(options.hours * 3600 if options.hours else options.minutes * 60)
        except AssertionError as reason:
            failure = reason
        finally:
            soak.close()
    if failure:
        print(f"FAILED: {failure}")
    print(f"soak: {soak.fleet.registrations} registrations, {soak.fleet.lost} lost, memory +{max(soak.growth, 0)} KiB")
    sys.exit(failure is not None)


if __name__ == "__main__":
    main()
