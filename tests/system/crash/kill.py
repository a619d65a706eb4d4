#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Kills the server at random moments of its busiest time: kill.py [--kills N] [--seed N] QUILLMERE

Afterwards each row of the database is what the radio was acknowledged, or the applications were told, last; or
what was sent after that and not answered. The server then goes on with that very folder. Every other kill finds the
database in write-ahead mode. Also from the environment: QUILLMERE_KILLS, QUILLMERE_CRASH_SEED.
"""

import argparse
import contextlib
import os
import pathlib
import random
import socket
import sqlite3
import sys
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from foreground import Server, memory_folder  # noqa: E402
from ledger import Ledger, copy_database, read_rows  # noqa: E402
from load import Fleet, Flight  # noqa: E402
from wire import free_port  # noqa: E402

LOAD_TIME = (0.005, 0.060)  # seconds until the kill
WIDTH = (32, 256)  # registrations in flight


class Target:
    """A server with its folder, its database in one journal mode."""

    def __init__(self, program, folder, mode, chance):
        self.mode = mode
        self.random = chance
        self.fleet = Fleet(chance)
        self.ledger = Ledger()
        self.copy = folder / "copy" / "qmr.db"
        self.copy.parent.mkdir(parents=True)
        self.ports = free_port(socket.SOCK_DGRAM), free_port(socket.SOCK_STREAM)
        settings = "radioRegistrationPort={}\napplicationPort={}\n".format(*self.ports)
        self.server = Server(program, folder, settings)
        self.kills = self.recoveries = self.acknowledged = self.announced = 0

    def prepare(self):
        """Makes the database."""
        self.server.start()
        self.server.kill()
        with contextlib.closing(sqlite3.connect(self.server.database)) as database:
            database.execute(f"PRAGMA journal_mode={self.mode}")

    def kill_once(self):
        self.server.start()
        with Flight(self.fleet, self.ledger, self.ports, self.random.randint(*WIDTH)) as flight:
            moment = time.monotonic() + self.random.uniform(*LOAD_TIME)
            while time.monotonic() < moment:
                flight.send_burst()
                flight.receive(max(0, moment - time.monotonic()))
            self.server.kill()
            flight.receive_rest()
        self.kills += 1
        rows = self.stored()
        broken = list(self.ledger.broken(rows))
        self.acknowledged += self.ledger.acknowledged_count
        self.announced += self.ledger.announced_count
        self.ledger = Ledger(rows)
        if broken:
            raise AssertionError("\n".join(broken))

    def stored(self):
        """What a copy of the folder yields: the server recovers the folder itself."""
        self.recoveries += copy_database(self.server.database, self.copy)
        rows = read_rows(self.copy)
        with contextlib.closing(sqlite3.connect(self.copy)) as database:
            mode = database.execute("PRAGMA journal_mode").fetchone()[0]
        if mode != self.mode:
            raise AssertionError(f"the database is in mode {mode}")
        return rows


def run(program, folder, kills, chance):
    targets = [Target(program, folder / mode, mode, chance) for mode in ("delete", "wal")]
    try:
        for target in targets:
            target.prepare()
        for number in range(kills):
            target = targets[number % len(targets)]
            try:
                target.kill_once()
            except AssertionError as failure:
                raise AssertionError(f"kill {number + 1} (journal mode {target.mode}): {failure}") from failure
    finally:
        for target in targets:
            target.server.kill()
    for target in targets:
        print(f"journal mode {target.mode}: {target.kills} kills, {target.recoveries} left a journal, "
              f"{target.acknowledged} acknowledgements and {target.announced} notices kept")
        if target.kills and not (target.acknowledged and target.announced):
            raise AssertionError("nothing was acknowledged or announced: nothing was tested")


def main():
    arguments = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    arguments.add_argument("program")
    arguments.add_argument("--kills", type=int, default=int(os.environ.get("QUILLMERE_KILLS", 200)))
    arguments.add_argument("--seed", type=int, default=int(
        os.environ.get("QUILLMERE_CRASH_SEED", random.SystemRandom().getrandbits(32))))
    options = arguments.parse_args()
    print(f"seed {options.seed}", flush=True)
    with memory_folder() as folder:
        try:
            run(os.path.abspath(options.program), pathlib.Path(folder), options.kills, random.Random(options.seed))
        except AssertionError as failure:
            sys.exit(f"FAILED: {failure}")


if __name__ == "__main__":
    main()
