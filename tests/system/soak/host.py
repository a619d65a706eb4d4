# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The server of a soak, life after life; what it costs; and who locks its database meanwhile."""

import json
import socket
import sqlite3
import time

from foreground import Service
from ledger import copy_database, read_rows
from wire import PATIENCE, free_port

LOCK_PATIENCE = 60  # seconds that a start waits for a lock, as docs/operations.md says
LOG = 16 << 20  # bytes of records that are kept
UP, STOPPING, STARTING = "up", "stopping", "starting"

# How every record begins that a soak may bring about. Of the database's own, only after a lock.
EXPECTED = ("Radio ", "Unknown Radio ", "Application connected", "Application disconnected", "Network error",
            "Quill Mere ", "Service stopped", "QMRS Protocol error: invalid message (2)")
AT_FIRST = ("Unable to update database.  Replacing database...",)
AFTER_LOCK = ("Database insert error", "Database write error", "Database delete error")


class Host:
    def __init__(self, program, folder):
        self.ports = free_port(socket.SOCK_DGRAM), free_port(socket.SOCK_STREAM)
        # A radio cannot listen at the server's own port on the same host: a discovery request comes back to the server.
        # So there is no more than one in a life.
        settings = "radioRegistrationPort={}\napplicationPort={}\nminimumDiscoveryPeriod=86400\n".format(*self.ports)
        self.server = Service(program, folder, settings)
        self.copy = folder / "copy.db"
        self.phase = STARTING
        self.since = time.monotonic()
        self.lives = self.kills = self.stops = self.records = 0
        self.read_up_to = 0  # of the event log
        self.was_locked = False  # in this life, or as it began

    def launch(self):
        self.server.launch()
        self.phase, self.since, self.read_up_to = STARTING, time.monotonic(), 0
        self.lives += 1
        self.was_locked = False

    def is_up(self):
        return self.phase == UP

    def go_on(self):
        """Returns whether the server has come up, or gone, just now."""
        if self.phase == UP:
            if self.server.process.poll() is not None:
                raise AssertionError(f"the server has ended by itself, with {self.server.process.returncode}")
            return False
        if self.phase == STARTING and self.server.is_started():
            self.phase = UP
            return True
        if self.phase == STOPPING and self.server.process.poll() is not None:
            if self.server.process.returncode != 0:
                raise AssertionError(f"the server was not stopped in order: {self.server.process.returncode}")
            return True
        if time.monotonic() > self.since + PATIENCE + (LOCK_PATIENCE if self.phase == STARTING else 0):
            raise AssertionError(f"the server is {self.phase} without end")
        return False

    def ask_to_stop(self):
        self.server.process.terminate()
        self.phase, self.since = STOPPING, time.monotonic()
        self.stops += 1

    def kill(self):
        """Returns when it is gone."""
        self.server.process.kill()
        self.server.process.wait()
        self.kills += 1

    def close(self):
        self.server.kill()
        self.server.notified.close()

    def left_rows(self):
        """Of a server that is gone; it has to recover them by itself."""
        copy_database(self.server.database, self.copy)
        return read_rows(self.copy)

    def rows(self):
        """Only while nothing is written: a reader locks the database."""
        return read_rows(self.server.database)

    def read_records(self):
        """Checks the new ones."""
        with open(self.server.event_log, "rb") as log:
            log.seek(self.read_up_to)
            whole = log.read().rpartition(b"\n")[0]
        if whole:
            self.read_up_to += len(whole) + 1
        expected = EXPECTED + (AFTER_LOCK if self.was_locked else ()) + (AT_FIRST if self.lives == 1 else ())
        for line in whole.splitlines():
            message = json.loads(line)["message"]
            self.records += 1
            if not message.startswith(expected):
                raise AssertionError(f"an unexpected record: {message}")

    def keep_log_short(self):
        """Only while nothing is recorded."""
        if self.read_up_to > LOG:
            self.server.forget_records()
            self.read_up_to = 0

    def memory(self):
        """Bytes of its own."""
        return self.server.resident("RssAnon")

    def descriptors(self):
        return self.server.descriptors()


class Locker:
    """Another program that has the database open and keeps it locked for a while, in any of the ways there are."""

    WAYS = ("BEGIN EXCLUSIVE", "BEGIN IMMEDIATE", "BEGIN; SELECT count(*) FROM subscribers")

    def __init__(self, path):
        self.path = path
        self.database = None
        self.until = 0.0
        self.count = 0

    def begin(self, way, seconds):
        """Returns whether the lock was to be had."""
        self.database = sqlite3.connect(self.path, timeout=0, isolation_level=None)
        try:
            for statement in way.split("; "):
                self.database.execute(statement).fetchall()
        except sqlite3.OperationalError:  # the server is just writing
            self.end()
            return False
        self.until = time.monotonic() + seconds
        self.count += 1
        return True

    def is_on(self):
        return self.database is not None

    def is_over(self):
        return self.is_on() and self.until <= time.monotonic()

    def end(self):
        if self.database:
            self.database.close()  # which rolls back
            self.database = None
