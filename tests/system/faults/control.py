# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The other side of faults.cpp: which call of the server fails, and what calls it has made."""

import contextlib
import errno
import mmap
import pathlib
import struct
import time

from foreground import wait_for

CALLS = ("open", "write", "pwrite", "fsync", "fdatasync", "ftruncate", "unlink", "sendmsg", "send", "recvmsg", "read",
         "pread", "accept4", "mmap", "fcntl", "unlock")
TARGETS = ("data", "net", "log", "settings", "other")
SHORT = "short"

ARMED, CALL, TARGET, ERROR, FIRST, FOR_GOOD, HITS, TURNS, WAITING = range(9)
COUNTS = 9
SIZE = 4 * (COUNTS + len(CALLS) * len(TARGETS))

MANY = 200  # failures of one call for good: the server only tries it again and again


class Control:
    def __init__(self, path):
        self.path = path
        path.write_bytes(bytes(SIZE))
        with open(path, "r+b") as file:
            self.memory = mmap.mmap(file.fileno(), SIZE)
        self.pid = None  # of the server

    def close(self):
        self.memory.close()

    def _get(self, field):
        return struct.unpack_from("=I", self.memory, 4 * field)[0]

    def _set(self, field, value):
        struct.pack_into("=I", self.memory, 4 * field, value)

    def arm(self, fault=None):
        """Counts anew; without a fault that is all. A fault: call, target, error, first, for_good."""
        self.end()
        for field in range(COUNTS, COUNTS + len(CALLS) * len(TARGETS)):
            self._set(field, 0)
        self._set(HITS, 0)
        if fault:
            self._set(CALL, CALLS.index(fault.call))
            self._set(TARGET, TARGETS.index(fault.target))
            self._set(ERROR, 0 if fault.error == SHORT else getattr(errno, fault.error))
            self._set(FIRST, fault.first)
            self._set(FOR_GOOD, fault.for_good)
            self._set(ARMED, 1)

    def end(self):
        """Of the fault."""
        self._set(ARMED, 0)

    def hits(self):
        return self._get(HITS)

    def counts(self):
        """By call and target, those that were made."""
        numbers = struct.unpack_from(f"={len(CALLS) * len(TARGETS)}I", self.memory, 4 * COUNTS)
        names = [(call, target) for call in CALLS for target in TARGETS]
        return {name: number for name, number in zip(names, numbers) if number}

    def turns(self):
        return self._get(TURNS)

    def is_idle(self, since=None):
        """Nothing is left to do of what has come. since: turns() before something came that is to be handled."""
        turns = self.turns()
        if not self._get(WAITING) or turns == since or not self._sleeps():
            return False
        return bool(self._get(WAITING)) and self.turns() == turns

    def _sleeps(self):
        """Who has been woken does not, even before it runs."""
        with contextlib.suppress(OSError):
            status = pathlib.Path(f"/proc/{self.pid}/stat").read_text(encoding="ascii")
            return status.rpartition(")")[2].split()[0] == "S"
        return False

    def await_idle(self, since=None):
        wait_for(lambda: self.is_idle(since), "the server to have done all", pause=0.001)

    def settle(self, since, limit):
        """Until all is done, or the failing call is only tried again; at most for the limit, in seconds."""
        deadline = time.monotonic() + limit
        while not self.is_idle(since) and self.hits() < MANY and time.monotonic() < deadline:
            time.sleep(0.001)
