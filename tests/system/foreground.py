# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The built server, run in the foreground with a data folder of its own."""

import ctypes
import json
import os
import pathlib
import signal
import subprocess
import tempfile
import time

from wire import PATIENCE

PR_SET_PDEATHSIG = 1

libc = ctypes.CDLL(None, use_errno=True)


def die_with_this_run():
    libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


def wait_for(condition, what, pause=0.02):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited in vain for {what}")
        time.sleep(pause)


def memory_folder():
    """Where a write takes no time, if this machine has it: for what outlives a process, but need not a machine."""
    place = pathlib.Path("/dev/shm")
    return tempfile.TemporaryDirectory(prefix="quillmere-", dir=place if os.access(place, os.W_OK) else None)


class Server:
    """settings is the content of qmr.cfg; launcher is a command that the program is an argument of."""

    def __init__(self, program, folder, settings="", launcher=(), environment=()):
        self.folder = folder / "Brackwater" / "Quill Mere"
        self.folder.mkdir(parents=True)
        (self.folder / "qmr.cfg").write_text(settings, encoding="ascii")
        self.database = self.folder / "qmr.db"
        self.event_log = folder / "events"
        self.environment = dict(os.environ, QUILLMERE_APPDATA=str(folder), QUILLMERE_EVENTLOG=str(self.event_log))
        self.environment.update(environment)
        self.command = [*launcher, str(program), "-exec"]
        self.process = None

    def start(self):
        """Returns when both ports are open; the records are those of this run."""
        self.event_log.write_bytes(b"")
        self.process = subprocess.Popen(self.command, env=self.environment, preexec_fn=die_with_this_run)
        wait_for(self.is_started, "the server to start", pause=0.002)

    def is_started(self):
        if self.process.poll() is not None:
            raise AssertionError(f"the server has ended with {self.process.returncode}")
        return any("Service started" in record for record in self.records())

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None

    def records(self):
        lines = self.event_log.read_text(encoding="utf-8").splitlines(keepends=True)
        return [json.loads(line)["message"] for line in lines if line.endswith("\n")]
