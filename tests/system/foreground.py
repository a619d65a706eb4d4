# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The built server, run with a data folder of its own, in the foreground or as a service."""

import contextlib
import ctypes
import json
import os
import pathlib
import signal
import socket
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
        self.error_output = None  # where it goes to, if not to this run's
        self.process = None

    def start(self):
        """Returns when both ports are open; the records are those of this run."""
        self.launch()
        wait_for(self.is_started, "the server to start", pause=0.002)

    def launch(self):
        self.event_log.write_bytes(b"")
        self.process = subprocess.Popen(self.command, env=self.environment, preexec_fn=die_with_this_run,
                                        stderr=self.error_output)

    def is_started(self):
        if self.process.poll() is not None:
            raise AssertionError(f"the server has ended with {self.process.returncode}")
        return any("Service started" in record for record in self.records())

    def stop(self):
        """As systemd does it; gives the exit status. One that runs in the foreground does not take it as a stop."""
        self.process.send_signal(signal.SIGTERM)
        process, self.process = self.process, None
        try:
            return process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
            raise AssertionError("the server does not stop") from None

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None

    def records(self):
        lines = self.event_log.read_text(encoding="utf-8").splitlines(keepends=True)
        return [json.loads(line)["message"] for line in lines if line.endswith("\n")]

    def forget_records(self):
        os.truncate(self.event_log, 0)

    def resident(self, which="VmRSS"):
        """Bytes of its memory that are resident; RssAnon: without what files hold."""
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text(encoding="ascii")
        return int(status.partition(f"{which}:")[2].split()[0]) * 1024

    def has_a_sanitizer(self):
        """Its memory is then not the server's own."""
        return "libasan" in pathlib.Path(f"/proc/{self.process.pid}/maps").read_text(encoding="utf-8")

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def ticks(self):
        """Of processor time so far."""
        fields = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text(encoding="ascii").rpartition(")")[2].split()
        return int(fields[11]) + int(fields[12])


class Service(Server):
    """The server as systemd runs it: it can be stopped. A launcher has to become the program itself."""

    def __init__(self, program, folder, settings="", launcher=(), environment=()):
        super().__init__(program, folder, settings, launcher, environment)
        self.command.remove("-exec")
        self.notified = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.environment["NOTIFY_SOCKET"] = str(folder / "notify")
        self.notified.bind(self.environment["NOTIFY_SOCKET"])
        self.notified.setblocking(False)

    def launch(self):
        with contextlib.suppress(BlockingIOError):  # or the service would wait for room there, after some lives
            while True:
                self.notified.recv(1 << 16)
        super().launch()
