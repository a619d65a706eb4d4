# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""What the server is doing as a call fails, and what has to be so afterwards."""

import collections
import contextlib
import signal
import sqlite3
import subprocess
import time

from control import MANY
from world import PROBE, RECOVERY, SETTLING, STARTED, STORED, UNOPENED, UNUSABLE, Client, Crashed, Lost, require

LIVE = ("registration", "change", "deregistration", "visit", "connection", "leaving")
WHOLE_LIFE = ("first-start", "start", "stop", "stop-owing")
SCENES = LIVE + WHOLE_LIFE

Fault = collections.namedtuple("Fault", "call target error first for_good")
UNHURRIED = 20  # seconds for what needs no end of a fault: a busy machine is no failure of the server


def patience(fault):
    """How long a fault may last, in seconds: one that happens once lasts no time, whatever the machine does meanwhile."""
    return SETTLING if fault and fault.for_good else UNHURRIED


# What came of a fault: how often it happened, the records of the scene and those after it, whether the row was as memory
# while the fault lasted, whether the server was at rest by then, and more in words.
Outcome = collections.namedtuple("Outcome", "hits records later stored settled notes")

DEFAULT_PORT = "Application Port: 9361"
OWED = Fault("pwrite", "data", "EIO", 1, True)


class Live:
    """Scenes that one server plays one after the other."""

    def __init__(self, world):
        self.world = world
        world.start()
        world.watch()
        self.client = None
        self.wanted = None  # what is to be known of the radio, None: nothing

    def prepare(self, scene):
        world = self.world
        if scene in ("registration", "deregistration", "visit"):
            world.number += 1
        if scene == "deregistration":
            world.register(world.number)
        elif scene == "change":
            world.number = world.serial % STORED
        elif scene == "leaving":
            self.client = Client(world.ports[1])
        world.control.await_idle()
        world.acknowledgements()
        world.watcher.look()
        world.forget_records()

    def act(self, scene):
        """Returns the event loop's turns before the last of it came."""
        world = self.world
        turns = world.control.turns()
        if scene in ("registration", "change"):
            self.wanted = world.register(world.number)
        elif scene == "deregistration":
            world.deregister(world.number)
            self.wanted = None
        elif scene == "visit":
            world.register(world.number)
            world.control.settle(turns, SETTLING)
            turns = world.control.turns()
            world.deregister(world.number)
            self.wanted = None
        elif scene == "connection":
            self.client = Client(world.ports[1])
        else:
            self.client.__exit__()
        return turns

    def play(self, scene, fault=None):
        """Returns what calls were made, and the outcome."""
        world, control = self.world, self.world.control
        before = world.number
        self.prepare(scene)
        control.arm(fault)
        turns = self.act(scene)
        control.settle(turns, patience(fault))
        counts, hits = control.counts(), control.hits()
        is_stored, is_settled = self.is_stored(), control.is_idle()
        control.end()
        deadline = time.monotonic() + RECOVERY
        world.check_alive()
        control.await_idle()
        notes = self.scene_notes(scene, deadline)
        records = world.server.records()
        world.forget_records()
        memory = world.check_agreement(deadline)
        self.check_watcher(memory, deadline, notes)
        if scene in ("registration", "change", "deregistration", "visit") and \
                memory.get(world.esn(world.number)) != self.wanted:
            notes.append("not heard")
        world.check_served(deadline)
        if scene == "change":
            world.number = before
        later = [record for record in world.server.records() if not record.startswith(("Application ", "Radio "))]
        return counts, Outcome(hits, records, later, is_stored, is_settled, notes)

    def is_stored(self):
        """Whether the row is as memory is to be, while the fault still lasts."""
        try:
            return self.world.rows().get(self.world.esn(self.world.number)) == self.wanted
        except (AssertionError, sqlite3.Error):
            return False

    def scene_notes(self, scene, deadline):
        if scene == "connection":
            self.await_table(deadline)
            is_served = not self.client.has_ended
            self.client.__exit__()
            self.world.control.await_idle()
            return [] if is_served else ["disconnected"]
        if scene in ("registration", "change") and not self.world.acknowledgements():
            return ["not acknowledged"]
        return []

    def await_table(self, deadline):
        while len(self.client.look()) < STORED and not self.client.has_ended:
            require(time.monotonic() < deadline, "the application that came is not told of the radios")
            time.sleep(0.002)

    def check_watcher(self, memory, deadline, notes):
        world = self.world
        while world.watcher.look() != memory and not world.watcher.has_ended:
            require(time.monotonic() < deadline, "an application that was there before has missed a notice")
            time.sleep(0.002)
        if world.watcher.has_ended:
            notes.append("watcher disconnected")
            world.watcher.__exit__()
            world.watch()


class Life:
    """Scenes that need a server of their own: its start, its stop, and the start after that."""

    def __init__(self, world):
        self.world = world
        self.wanted = {}

    def play(self, scene, fault=None):
        return (self.play_stop if scene.startswith("stop") else self.play_start)(scene, fault)

    def play_start(self, scene, fault):
        world, control = self.world, self.world.control
        control.arm(fault)
        world.launch()
        limit = time.monotonic() + patience(fault)
        is_told = fault is None or fault.target != "log"  # its own start, by a record
        while not self.start_is_over(is_told) and control.hits() < MANY and time.monotonic() < limit:
            time.sleep(0.002)
        counts, hits = control.counts(), control.hits()
        is_settled = self.start_is_over(is_told)
        control.end()
        deadline = time.monotonic() + RECOVERY
        while not self.start_is_over(is_told):
            world.check_alive()
            require(time.monotonic() < deadline, "the server neither starts nor says why not")
            time.sleep(0.002)
        records = world.server.records()
        notes = []
        if any(DEFAULT_PORT in record for record in records):
            notes.append("default settings")
        elif not is_told or any(STARTED in record for record in records):
            self.check(scene, deadline)
        else:
            notes.append("nothing served")
        later = self.end_and_start_again(scene, len(records))
        return counts, Outcome(hits, records, later, None, is_settled, notes)

    def start_is_over(self, is_told):
        """It serves, or rests without."""
        if not is_told:
            return self.world.control.is_idle() and self.world.is_listening()
        records = self.world.server.records()
        is_over = any(STARTED in record or record.startswith((UNOPENED, UNUSABLE)) for record in records)
        return is_over and self.world.control.is_idle()

    def check(self, scene, deadline):
        """What was stored before is there."""
        world = self.world
        if scene != "first-start":
            memory = world.check_agreement(deadline)
            require(memory.keys() == {world.esn(number) for number in range(STORED)},
                    f"{len(memory)} radios are there, {STORED} were before")
            for esn, radio in self.wanted.items():
                require(memory[esn][:3] == radio[:3], f"radio {esn.hex()} is {memory[esn]} after a start, not {radio}")
        world.check_served(deadline)

    def end_and_start_again(self, scene, known):
        world = self.world
        world.stop()
        later = world.server.records()[known:]
        if "first-start" != scene:
            # The radio that asked has been stored.
            self.forget_probe()
        world.start()
        self.check(scene, time.monotonic() + RECOVERY)
        world.stop()
        return later

    def forget_probe(self):
        with contextlib.closing(sqlite3.connect(self.world.server.database)) as database:
            database.execute("PRAGMA foreign_keys = ON")
            database.execute("DELETE FROM subscribers WHERE esn = ?", (self.world.esn(PROBE),))
            database.commit()

    def play_stop(self, scene, fault):
        world, control = self.world, self.world.control
        world.start()
        before = world.check_agreement(time.monotonic() + RECOVERY)[world.esn(0)]
        after = before
        if scene == "stop-owing":
            control.arm(OWED)
            turns = control.turns()
            after = world.register(0)
            control.settle(turns, SETTLING)
        world.acknowledgements()
        world.forget_records()
        control.arm(fault)
        process = world.server.process
        process.send_signal(signal.SIGTERM)
        limit = time.monotonic() + patience(fault)
        while process.poll() is None and control.hits() < MANY and time.monotonic() < limit:
            time.sleep(0.002)
        is_settled = process.poll() is not None
        counts, hits = control.counts(), control.hits()
        control.end()
        try:
            status = process.wait(RECOVERY)
        except subprocess.TimeoutExpired as failure:
            raise Lost("the server does not stop") from failure
        if status != 0:
            raise Crashed(f"the server has ended with {status}")
        world.server.process = None
        records = world.server.records()
        # What fails for good until the server is gone can keep what was owed from being stored.
        row = world.rows()[world.esn(0)]
        is_stored = row == after
        require(is_stored or row == before, f"the first radio is stored as {row}")
        require(is_stored or (fault and fault.for_good), "what was owed was not stored at the stop")
        self.wanted[world.esn(0)] = row
        world.start()
        self.check(scene, time.monotonic() + RECOVERY)
        world.stop()
        return counts, Outcome(hits, records, [], is_stored, is_settled, [])
