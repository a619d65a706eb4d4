# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""The server in a Wine of the test's own, driven as an administrator drives it; and a radio for it."""

import json
import pathlib
import shutil
import socket
import sys
import time

from wineprefix import parse_records

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from wire import acknowledgement, registration  # noqa: E402

NAME = "Quill Mere"
DATA = r"C:\ProgramData\Brackwater\Quill Mere"
EVENT_SOURCE = rf"HKLM\SYSTEM\CurrentControlSet\Services\EventLog\Application\{NAME}"
ID = 0xC0000001

STOPPED, START_PENDING, RUNNING = 1, 2, 4


class Answer:
    """What a command line gave: its exit code as Windows sees it, and both its texts with plain line ends."""

    def __init__(self, done):
        # A Unix exit code is the lowest byte of what the program returned.
        self.exit_code = done.returncode - 256 if done.returncode > 127 else done.returncode
        self.out = done.stdout.replace(b"\r\n", b"\n").decode("latin-1")
        self.err = done.stderr.replace(b"\r\n", b"\n").decode("latin-1")

    def __repr__(self):
        return f"exit code {self.exit_code}, out {self.out!r}, err {self.err!r}"

    def __eq__(self, other):
        return (self.exit_code, self.out, self.err) == other


class Server:
    """The executables in a folder of drive C, the service of that name, its data folder and its records."""

    def __init__(self, wine, executables, folder=r"C:\quillmere"):
        self.wine = wine
        self._seen = 0
        self.udp_port = free_port(socket.SOCK_DGRAM)
        self.tcp_port = free_port(socket.SOCK_STREAM)
        self._control = self._copy(executables["servicecontrol"], r"C:\quillmere-control")
        self._executable = executables["quillmere"]
        self.path = self.copy_to(folder)

    def _copy(self, executable, folder):
        target = self.wine.unix_path(folder) / pathlib.Path(executable).name
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(executable, target)
        return f"{folder}\\{target.name}"

    def copy_to(self, folder):
        """Puts the server into another folder, whence it runs from now on."""
        self.path = self._copy(self._executable, folder)
        return self.path

    @property
    def data(self):
        return self.wine.unix_path(DATA)

    @property
    def database(self):
        return self.data / "qmr.db"

    def configure(self):
        self.data.mkdir(parents=True, exist_ok=True)
        ports = f"radioRegistrationPort={self.udp_port}\napplicationPort={self.tcp_port}\n"
        (self.data / "qmr.cfg").write_text(ports)

    def run(self, *arguments):
        return Answer(self.wine.run(self.path, *arguments))

    def _ask(self, *arguments):
        done = self.wine.run(self._control, NAME, *arguments)
        return json.loads(done.stdout)

    def status(self):
        return self._ask("status")

    def config(self):
        return self._ask("config")

    def control(self, code):
        return self._ask("control", str(code))

    def wait_for_state(self, state):
        return self.wine.wait_for(lambda: self.status().get("state") == state, f"state {state}")

    def start(self):
        """Starts the installed service through the service manager, and waits until it runs."""
        answer = self._ask("start")
        if "error" in answer:
            raise AssertionError(f"cannot start the service: {answer}")
        self.wait_for_state(RUNNING)

    def start_from_console(self, *arguments):
        """The same by the server's own command line; Wine takes ten seconds to find that this is no service."""
        answer = self.run(*arguments)
        self.wait_for_state(RUNNING)
        return answer

    def forget_records(self):
        self._seen = len(self.wine.records())

    def records(self):
        return self.wine.records()[self._seen :]

    def wait_for_record(self, text, seconds=60):
        def found():
            return next((record for record in self.records() if text in record.text), None)

        return self.wine.wait_for(found, f"a record with {text!r}", seconds)

    def registry_value(self, key, name):
        """A value as reg.exe prints it, or None."""
        done = self.wine.run("reg.exe", "query", key, "/v", name)
        for line in done.stdout.decode(errors="replace").splitlines():
            fields = line.split(None, 2)
            if len(fields) == 3 and fields[0] == name:
                return fields[1], fields[2]
        return None

    def wait_until_a_radio_registers(self):
        def registers():
            with Radio(self.udp_port) as radio:
                return radio.registers()

        self.wine.wait_for(registers, "an acknowledgement")

    def remove(self):
        """Leaves nothing behind, whatever state a test ended in."""
        if self.status().get("state") not in (None, STOPPED):
            self.run("-terminate")
            self.wait_for_state(STOPPED)
        if "error" not in self.status():
            self.run("-uninstall")
        shutil.rmtree(self.data.parent, ignore_errors=True)


class ForegroundRun:
    """The server with -exec, from its start to the end of the block; its records are those of its own log."""

    def __init__(self, server, folder):
        self._log = pathlib.Path(folder) / "foreground.log"
        self._out = pathlib.Path(folder) / "foreground.out"
        self._server = server

    def __enter__(self):
        with open(self._out, "wb") as out, open(self._log, "wb") as log:
            self._process = self._server.wine.start(
                self._server.path, "-exec", events=True, stdout=out, stderr=log
            )
        return self

    def __exit__(self, *_):
        self._process.kill()
        self._process.wait(60)

    def output(self):
        return self._out.read_bytes()

    def running(self):
        return self._process.poll() is None

    def records(self):
        return parse_records(self._log.read_text(encoding="utf-8", errors="replace"))

    def wait_for_record(self, text, seconds=60):
        def found():
            return next((record for record in self.records() if text in record.text), None)

        return self._server.wine.wait_for(found, f"a record with {text!r}")


class Radio:
    """A radio at 127.0.0.2."""

    ESN = bytes.fromhex("0011aabb22cc33dd")
    SUID = bytes.fromhex("123456789abcdd")

    def __init__(self, port):
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind(("127.0.0.2", 0))
        self._socket.settimeout(1)
        self._port = port

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._socket.close()

    def registers(self):
        """Registers, again each second as radios do, and tells whether it was acknowledged."""
        request = registration(self.ESN, self.SUID, b"\x07")
        end = time.monotonic() + 30
        while time.monotonic() < end:
            self._socket.sendto(request, ("127.0.0.1", self._port))
            try:
                return self._socket.recv(300) == acknowledgement(self.ESN)
            except TimeoutError:
                pass
        return False


def free_port(kind):
    """A port that is free at this moment."""
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("0.0.0.0", 0))
        return probe.getsockname()[1]
