# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""A Wine of the test's own: made in a temporary folder, without a display, and gone when the test ends.

As a module:

    with WinePrefix() as wine:
        answer = wine.run("quillmere.exe", "-i")      # a CompletedProcess: returncode, stdout and stderr as bytes
        wine.wait_for(lambda: any(r.text == "Started." for r in wine.records()))

As a program:

    wineprefix.py with COMMAND [ARGUMENT]...    makes a Wine, runs a command of this machine (a CTest run, say) that
                                                finds it through its environment, and ends the Wine
    wineprefix.py run PROGRAM [ARGUMENT]...     runs a Windows program in that Wine (CMAKE_CROSSCOMPILING_EMULATOR)

    QUILLMERE_WINE_PROCESSOR    which of this machine's processors the Wine keeps to (default: 0, the first)

No other Wine of the same user is ever touched: every command names this prefix, and each prefix has a server of its own.

What a Windows program prints goes to a file, never to a pipe: Wine starts helpers of its own (explorer, rpcss) as a
program first needs them, they keep its standard output open, and a reader of a pipe would wait for them for ever.
"""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass

# Debian keeps the 64-bit programs out of the path; without the 32-bit package nothing else is there.
_FOLDERS = ["/usr/lib/wine", "/usr/lib/wine-development"]

# What ReportEventW prints: the channel "advapi" has the numbers, the channel "eventlog" the text.
_EVENT_CHANNELS = "-all,+eventlog,fixme+advapi"

# Windows 10 and, in place of a display, a driver that draws nothing: window messages work, as Qt's timers need.
_FIRST_REGISTRY = r"""WINE REGISTRY Version 2

#arch=win64

[Software\\Wine]
"Version"="win10"

[Software\\Wine\\Drivers]
"Graphics"="null"
"""

_TYPES = {0: "success", 1: "error", 2: "warning", 4: "information"}
_THREAD = r"(?P<thread>[0-9a-f]{4,})"
_SOURCE_LINE = re.compile(_THREAD + r":fixme:advapi:RegisterEventSourceW \(\(null\),L\"(?P<source>.*)\"\): stub$")
_NUMBERS_LINE = re.compile(
    _THREAD + r":fixme:advapi:ReportEventW \([0-9A-F]+,0x(?P<type>[0-9a-f]+),0x(?P<category>[0-9a-f]+),"
    r"0x(?P<id>[0-9a-f]+),[0-9A-F]+,0x[0-9a-f]+,0x(?P<size>[0-9a-f]+),"
)
_TEXT_LINE = re.compile(_THREAD + r":(?:err|warn|trace):eventlog:ReportEventW L\"(?P<text>.*)\"(?P<cut>\.\.\.)?$")
_ESCAPE = re.compile(r"\\([0-9a-f]{4}|.)")
_ESCAPED = {"n": "\n", "r": "\r", "t": "\t", '"': '"', "\\": "\\"}


class WineError(Exception):
    """Wine is missing, or did not do in time what it must."""


@dataclass(frozen=True)
class Record:
    """One event record as Wine prints it. Wine shows no more of a long text than its first part; `cut` tells."""

    source: str
    type: str
    id: int
    category: int
    data_size: int
    text: str
    cut: bool


def _unescape(text):
    """Gives a text back as it was before Wine escaped it; surrogate pairs become one character."""

    def one(match):
        escape = match.group(1)
        return _ESCAPED[escape] if len(escape) == 1 else chr(int(escape, 16))

    return _ESCAPE.sub(one, text).encode("utf-16-le", "surrogatepass").decode("utf-16-le", "replace")


def parse_records(log):
    """The event records in Wine's debug output, in order; lines of other kinds are passed over.

    Programs write to one log at the same time, so what belongs together is found by Wine's thread number.
    """
    records, sources, numbers = [], {}, {}
    for line in log.splitlines():
        if match := _SOURCE_LINE.search(line):
            sources[match["thread"]] = _unescape(match["source"])
        elif match := _NUMBERS_LINE.search(line):
            numbers[match["thread"]] = match
        elif (match := _TEXT_LINE.search(line)) and (number := numbers.pop(match["thread"], None)):
            code = int(number["type"], 16)
            records.append(
                Record(
                    source=sources.get(match["thread"], ""),
                    type=_TYPES.get(code, str(code)),
                    id=int(number["id"], 16),
                    category=int(number["category"], 16),
                    data_size=int(number["size"], 16),
                    text=_unescape(match["text"]),
                    cut=match["cut"] is not None,
                )
            )
    return records


def find_program(name):
    """The path of one of Wine's own programs."""
    for folder in _FOLDERS:
        if os.access(os.path.join(folder, name), os.X_OK):
            return os.path.join(folder, name)
    raise WineError(f"{name} is not there; the package is called wine64")


def run_to_end(command, env, timeout=None, **options):
    """Runs a Windows program (Wine's loader and its arguments) and waits for it alone; gives a CompletedProcess."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        options = {"stdin": subprocess.DEVNULL} | options
        done = subprocess.run(command, env=env, stdout=out, stderr=err, timeout=timeout, check=False, **options)
        out.seek(0)
        err.seek(0)
        return subprocess.CompletedProcess(command, done.returncode, out.read(), err.read())


class WinePrefix:
    """A Wine with its own registry, drive C and service manager, from `with` to the end of its block."""

    def __init__(self, replaced=()):
        """replaced: programs of Wine's own in whose place a test puts others."""
        self._replaced = replaced
        self._wine = find_program("wine64")
        self._server = find_program("wineserver64")
        self._folder = pathlib.Path(tempfile.mkdtemp(prefix="quillmere-wine-"))
        self._memory = None
        self._keeper = None
        self._started = []
        self.prefix = self._folder / "prefix"
        self.drive_c = self.prefix / "drive_c"
        self.log_file = self._folder / "services.log"

    def __enter__(self):
        # Wine's programs ask its server at nearly every call: on one processor they do so four times as fast as on two.
        processors = sorted(os.sched_getaffinity(0))
        chosen = int(os.environ.get("QUILLMERE_WINE_PROCESSOR", "0"))
        os.sched_setaffinity(0, {processors[chosen % len(processors)]})
        try:
            self._create()
            self._start_server()
            self._keep_alive()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *_):
        self.close()

    def _create(self):
        (self._folder / "home").mkdir()
        self.prefix.mkdir()
        (self.prefix / "user.reg").write_text(_FIRST_REGISTRY, encoding="ascii")
        answer = run_to_end([self._wine, "wineboot", "--init"], self.environment(), timeout=300)
        if answer.returncode != 0:
            raise WineError("cannot make a prefix: " + answer.stderr.decode(errors="replace"))
        self._put_data_into_memory()
        # Until the first service manager is gone, a program that comes now would start a second beside it.
        self._wait_until_gone(120)

    def _put_data_into_memory(self):
        """Moves the common data folder there, where this machine can: the database waits for the disk at every write."""
        if os.access("/dev/shm", os.W_OK):
            self._memory = pathlib.Path(tempfile.mkdtemp(prefix="quillmere-wine-", dir="/dev/shm"))
            data = self.drive_c / "ProgramData"
            shutil.copytree(data, self._memory, symlinks=True, dirs_exist_ok=True)
            shutil.rmtree(data)
            data.symlink_to(self._memory)

    def _start_server(self):
        """Starts the server that all programs of this prefix share; boundaddress.c tells what is put into it."""
        library = self._folder / "boundaddress.so"
        source = pathlib.Path(__file__).with_name("boundaddress.c")
        subprocess.run(["cc", "-shared", "-fPIC", "-o", library, source], check=True)
        # Returns when the server is there, which then stays until it is ended.
        environment = self.environment() | {"LD_PRELOAD": str(library)}
        subprocess.run([self._server, "--persistent"], env=environment, check=True, timeout=60)

    def _keep_alive(self):
        """Starts the process that services live by: without one that is no service, Wine ends them all.

        It is also the one that starts Wine's service manager, so that the services write to its standard error.
        """
        with open(self.log_file, "wb") as log:
            self._keeper = subprocess.Popen(
                [self._wine, "cmd.exe", "/d", "/q"],
                env=self.environment(events=True),
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=log,
                start_new_session=True,
            )
        # Its first prompt shows that Wine is up; an answer of its own shows that it also reads.
        self._keeper.stdin.write(b"echo quillmere-^ready\r\n")
        self._keeper.stdin.flush()
        seen = b""
        while b"quillmere-ready" not in seen:
            got = os.read(self._keeper.stdout.fileno(), 4096)
            if not got:
                raise WineError("Wine ended at once: " + self.log())
            seen += got

    def close(self):
        """Ends this prefix's processes, and only those, and removes its folder."""
        # A program that is just starting would bring a server up again after the first is ended.
        for program in self._started:
            program.kill()
            program.wait(60)
        self._started.clear()
        if self.prefix.exists():
            self._end_server()
        if self._keeper:
            self._keeper.stdin.close()
            self._keeper.stdout.close()
            self._keeper.wait(60)
            self._keeper = None
        shutil.rmtree(self._folder, ignore_errors=True)
        if self._memory:
            shutil.rmtree(self._memory, ignore_errors=True)

    def _end_server(self):
        """Ends the server, and with it all its processes; again when one that had just started made a new server."""
        for _ in range(10):
            subprocess.run([self._server, "-k"], env=self.environment(), stderr=subprocess.DEVNULL, check=False)
            try:
                self._wait_until_gone(5)
                return
            except subprocess.TimeoutExpired:
                pass
        raise WineError(f"the Wine in {self.prefix} cannot be ended")

    def _wait_until_gone(self, seconds):
        subprocess.run([self._server, "-w"], env=self.environment(), timeout=seconds, check=True)

    def environment(self, events=False):
        """The variables for a program in this prefix; with `events`, it prints its event records on standard error."""
        taken_out = ("DISPLAY", "WAYLAND_DISPLAY", "LANG", "LANGUAGE")
        kept = {k: v for k, v in os.environ.items() if k not in taken_out and not k.startswith(("WINE", "XDG_", "LC_"))}
        return kept | {
            "HOME": str(self._folder / "home"),
            "TMPDIR": str(self._folder),  # Wine leaves its server's folder behind
            "LC_ALL": "C.UTF-8",
            "WINEPREFIX": str(self.prefix),
            "WINEARCH": "win64",
            "WINEDEBUG": _EVENT_CHANNELS if events else "-all",
            # No offer to fetch .NET or a browser engine, no menu entries, no crash dialog.
            "WINEDLLOVERRIDES": ";".join(
                ["mscoree=", "mshtml=", "winemenubuilder.exe=", "winedbg.exe="] + [f"{name}=n" for name in self._replaced]
            ),
        }

    def run(self, program, *arguments, events=False, timeout=120, **options):
        """Runs a Windows program to its end; `options` are those of subprocess.run, output aside."""
        return run_to_end([self._wine, str(program), *arguments], self.environment(events), timeout, **options)

    def start(self, program, *arguments, events=False, **options):
        """Starts a Windows program and gives its Popen; `options` are those of subprocess.Popen (files, no pipes)."""
        options = {"stdin": subprocess.DEVNULL, "env": self.environment(events)} | options
        self._started.append(subprocess.Popen([self._wine, str(program), *arguments], **options))
        return self._started[-1]

    def log(self):
        """What the services of this prefix have printed, event records included."""
        return self.log_file.read_text(encoding="utf-8", errors="replace") if self.log_file.exists() else ""

    def records(self):
        """The event records that the services of this prefix have written."""
        return parse_records(self.log())

    def wait_for(self, condition, what="the condition", seconds=60):
        """Waits for a condition and gives its value; the time only bounds how long a failure takes."""
        end = time.monotonic() + seconds
        while not (value := condition()):
            if time.monotonic() > end:
                raise WineError(f"{what} did not come true in {seconds} s\n{self.log()}")
            time.sleep(0.02)
        return value

    def unix_path(self, windows_path):
        """Where a path on drive C lies on this machine."""
        drive, rest = windows_path[:2], windows_path[2:]
        if drive.lower() != "c:":
            raise ValueError(f"not on drive C: {windows_path}")
        return self.drive_c.joinpath(*rest.strip("\\").split("\\"))


def _run_in_new_prefix(command):
    """Runs a command of this machine in a new prefix. Ended from outside, it takes command and Wine with it."""
    child, ended = None, False

    def end(*_):
        nonlocal ended
        ended = True
        if child:
            child.terminate()

    signal.signal(signal.SIGTERM, end)
    with WinePrefix() as wine:
        if not ended:
            child = subprocess.Popen(command, env=wine.environment())
            # The signal may have come before the child was known.
            if ended:
                child.terminate()
            child.wait()
    if ended:
        return 128 + signal.SIGTERM
    return child.returncode if child.returncode >= 0 else 128 - child.returncode


def _run_program(program):
    """Runs a Windows program in the prefix that the environment names, and prints what it printed."""
    # Qt Test then prints its results although there is no console; Wine hands QT_ variables over under this name only.
    environment = os.environ | {"WINEQT_FORCE_STDERR_LOGGING": "1"}
    answer = run_to_end([find_program("wine64"), *program], environment)
    sys.stdout.buffer.write(answer.stdout)
    sys.stdout.flush()
    sys.stderr.buffer.write(answer.stderr)
    return answer.returncode if answer.returncode >= 0 else 128 - answer.returncode


def main(arguments):
    if len(arguments) >= 2 and arguments[0] == "with":
        return _run_in_new_prefix(arguments[1:])
    if len(arguments) >= 2 and arguments[0] == "run":
        if "WINEPREFIX" in os.environ:
            return _run_program(arguments[1:])
        print("wineprefix.py: run needs the environment that with gives", file=sys.stderr)
        return 2
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except WineError as error:
        sys.exit(f"wineprefix.py: {error}")
