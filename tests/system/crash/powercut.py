#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Cuts the power at random points of the server's work: powercut.py [--cuts N] [--seed N] QUILLMERE RECORDER

The server runs under load with RECORDER loaded into it, which writes down all that it does to its data folder and
all that it receives and sends. From that each cut makes the folder as a disk would have it: once with nothing but what
was synced, once with a random part of the rest. SQLite must find each sound, with every registration that was
acknowledged and every change that was announced before the cut. Half of the cuts are in each journal mode.

The database is made, and the folder synced, before the recorded run. Cuts fall anywhere in that run, which begins with
the start on that database and ends with a write-ahead log that has been written back at least once.
Also from the environment: QUILLMERE_CUTS, QUILLMERE_CRASH_SEED.
"""

import argparse
import contextlib
import os
import pathlib
import random
import socket
import sqlite3
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from disk import RECEIVED, SENT, STREAMED, Disk, read_trace  # noqa: E402
from foreground import Server, memory_folder, wait_for  # noqa: E402
from ledger import Ledger, read_rows  # noqa: E402
from load import Fleet, Flight  # noqa: E402
from wire import ACKNOWLEDGEMENT, datagram, free_port, take_notices  # noqa: E402

REGISTRATIONS = 600  # at least
WIDTHS = (1, 4, 16, 48)  # registrations in flight, each for a part of the load
STRANGER = 0x7F030001  # 127.3.0.1
NOT_A_MESSAGE = "QMRS Protocol error: invalid message (2)"
WAL_VERSION = 2  # in the header of a database, byte 18
SHOWN = 3  # of the cuts that lost something


def read_folder(folder):
    return {path.name: path.read_bytes() for path in folder.iterdir() if not path.name.endswith("-shm")}


def record(program, recorder, folder, mode, chance):
    """Returns the data folder, its contents before and after, the trace, and what was seen to be promised."""
    settings = "radioRegistrationPort={}\napplicationPort={}\n"
    ports = free_port(socket.SOCK_DGRAM), free_port(socket.SOCK_STREAM)
    server = Server(program, folder, settings.format(*ports))
    trace = folder / "trace"
    try:
        server.start()
        server.kill()
        with contextlib.closing(sqlite3.connect(server.database)) as database:
            database.execute(f"PRAGMA journal_mode={mode}")
        before, untouched = read_folder(server.folder), server.database.stat().st_mtime_ns

        server.environment.update(LD_PRELOAD=recorder, QUILLMERE_TRACE=str(trace),
                                  QUILLMERE_TRACE_FOLDER=str(server.folder))
        # A sanitizer's runtime insists on being loaded first, and works as the second too.
        options = [os.environ.get("ASAN_OPTIONS"), "verify_asan_link_order=0"]
        server.environment["ASAN_OPTIONS"] = ":".join(filter(None, options))
        server.start()
        ledger, fleet = Ledger(), Fleet(chance)
        with Flight(fleet, ledger, ports, 0) as flight:
            while ledger.acknowledged_count < REGISTRATIONS or server.database.stat().st_mtime_ns == untouched:
                if ledger.acknowledged_count > 20 * REGISTRATIONS:
                    raise AssertionError("the write-ahead log was never written back")
                flight.width = WIDTHS[ledger.acknowledged_count * len(WIDTHS) // REGISTRATIONS % len(WIDTHS)]
                flight.send_burst()
                flight.receive(1)
            flight.land()
            # What has been received may not be in the trace yet. The record of this one is written after that.
            flight.radios.send(STRANGER, datagram(bytes(8), opcode=0))
            wait_for(lambda: NOT_A_MESSAGE in server.records(), "the record of a bad datagram")
            server.kill()
            flight.receive_rest()
    finally:
        server.kill()
    return server.folder, before, read_folder(server.folder), read_trace(trace), ledger


class Replay:
    """The trace up to some event: the disk, and what was promised."""

    def __init__(self, folder, before, events):
        self.disk = Disk(folder, before)
        self.ledger = Ledger()
        self.events = events
        self.position = 0
        self.streams = {}

    def advance(self, position):
        for event in self.events[self.position:position]:
            if event.operation == RECEIVED:
                self.ledger.sent(event.number, event.data)
            elif event.operation == SENT:
                if event.data[13] == ACKNOWLEDGEMENT:
                    self.ledger.acknowledged(event.data)
            elif event.operation == STREAMED:
                stream = self.streams.setdefault(event.descriptor, bytearray())
                stream += event.data
                for notice in take_notices(stream):
                    self.ledger.announced(notice)
            else:
                self.disk.apply(event)
        self.position = position


def check_record(folder, before, after, events, seen):
    """The trace is complete if it leads to what came about."""
    whole = Replay(folder, before, events)
    whole.advance(len(events))
    contents = whole.disk.contents()
    if contents != after:
        names = [name for name in contents.keys() | after.keys() if contents.get(name) != after.get(name)]
        raise AssertionError(f"the trace does not lead to the {', '.join(sorted(names))} that was found")
    if (after["qmr.db"][18] == WAL_VERSION) != (before["qmr.db"][18] == WAL_VERSION):
        raise AssertionError("the server has left the journal mode that the database was in")
    for what in ("acknowledged_count", "announced_count"):
        if getattr(whole.ledger, what) != getattr(seen, what) or not getattr(seen, what):
            raise AssertionError(f"{what}: {getattr(whole.ledger, what)} in the trace, {getattr(seen, what)} seen")
    return whole.disk.counts


def make_folder(place, contents):
    place.mkdir(exist_ok=True)
    for path in place.iterdir():
        path.unlink()
    for name, content in contents.items():
        (place / name).write_bytes(content)


def lost_at(replay, place, chance):
    """What is missing, in words."""
    make_folder(place, replay.disk.after_power_cut(chance))
    try:
        return list(replay.ledger.broken(read_rows(place / "qmr.db")))
    except (AssertionError, sqlite3.Error) as failure:
        return [str(failure)]


def cut(program, recorder, folder, mode, cuts, chance):
    """Returns how many of the cuts lost something."""
    data, before, after, events, seen = record(program, recorder, folder, mode, chance)
    syncs = check_record(data, before, after, events, seen)
    replay, failed, shown = Replay(data, before, events), 0, 0
    for position in sorted(chance.randint(0, len(events)) for _ in range(cuts)):
        replay.advance(position)
        lost = {name: lost_at(replay, folder / "cut", choice)
                for name, choice in (("what was synced", None), ("a part of the rest", chance))}
        failed += any(lost.values())
        for name, texts in lost.items():
            if texts and shown < SHOWN:
                shown += 1
                print(f"  cut behind event {position} of {len(events)}, with {name}: {texts[0]}")
    print(f"journal mode {mode}: {cuts} cuts, {failed} lost something; {seen.acknowledged_count} acknowledgements and "
          f"{seen.announced_count} notices took {syncs['file']} syncs of files and {syncs['folder']} of the folder",
          flush=True)
    return failed


def main():
    arguments = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    arguments.add_argument("program")
    arguments.add_argument("recorder")
    arguments.add_argument("--cuts", type=int, default=int(os.environ.get("QUILLMERE_CUTS", 1000)))
    arguments.add_argument("--seed", type=int, default=int(
        os.environ.get("QUILLMERE_CRASH_SEED", random.SystemRandom().getrandbits(32))))
    options = arguments.parse_args()
    print(f"seed {options.seed}", flush=True)
    chance = random.Random(options.seed)
    program, recorder = os.path.abspath(options.program), os.path.abspath(options.recorder)
    with memory_folder() as folder:
        place = pathlib.Path(folder).resolve()
        try:
            failed = sum(cut(program, recorder, place / mode, mode, (options.cuts + 1) // 2, chance)
                         for mode in ("delete", "wal"))
        except AssertionError as failure:
            sys.exit(f"FAILED: {failure}")
    if failed:
        sys.exit(f"FAILED: {failed} power cuts lost what was promised")


if __name__ == "__main__":
    main()
