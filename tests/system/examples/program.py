# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The example clients: how each language's are compiled and started, and what they say while they run."""

import pathlib
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
EXAMPLES = HERE.parent.parent.parent / "examples"
sys.path[:0] = [str(HERE.parent), str(HERE.parent / "netns")]

from foreground import die_with_this_run  # noqa: E402
from namespaces import CannotRun  # noqa: E402
from wire import PATIENCE  # noqa: E402

COMPILATION = 120  # seconds, on a busy machine


def needs(*tools):
    for tool in tools:
        if not shutil.which(tool):
            raise CannotRun(f"needs {tool}")


def compiled(*command):
    """Fails with what the compiler says; a warning is an error of its own."""
    result = subprocess.run(command, capture_output=True, text=True, timeout=COMPILATION, check=False)
    if result.returncode != 0 or result.stdout or result.stderr:
        raise AssertionError(f"{' '.join(command)}: {result.returncode}\n{result.stdout}{result.stderr}")


def python(_):
    folder = EXAMPLES / "python"
    run = (sys.executable, "-B", "-W", "error")
    return {"radio": (*run, folder / "radio.py"), "application": (*run, folder / "application.py"),
            "vectors": (*run, HERE / "vectors.py")}


def javascript(_):
    needs("node")
    folder = EXAMPLES / "javascript"
    return {"radio": ("node", folder / "radio.js"), "application": ("node", folder / "application.js"),
            "vectors": ("node", HERE / "vectors.mjs")}


def java(classes):
    needs("java", "javac")
    sources = [*sorted((EXAMPLES / "java").glob("*.java")), HERE / "Vectors.java"]
    compiled("javac", "-Xlint:all", "-Werror", "-d", str(classes), *map(str, sources))
    # Quick to start, and small: many run at once here.
    run = ("java", "-XX:TieredStopAtLevel=1", "-Xmx64m", "-cp", classes)
    return {"radio": (*run, "Radio"), "application": (*run, "Application"), "vectors": (*run, "Vectors")}


def csharp(folder):
    needs("mono", "mcs")
    sources = {"Radio": [EXAMPLES / "csharp" / "Radio.cs"], "Application": [EXAMPLES / "csharp" / "Application.cs"]}
    sources["Vectors"] = [HERE / "Vectors.cs", *sources["Radio"], *sources["Application"]]
    for name, files in sources.items():
        command = ("mcs", "-warnaserror", "-warn:4", f"-main:{name}", f"-out:{folder / name}.exe")
        # What only .NET has is compiled against declarations of it, and never run.
        compiled(*command, *map(str, [*files, HERE / "DotNet.cs"]))
        compiled(*command, "-d:MONO", "-r:Mono.Posix", *map(str, files))
    return {name.lower(): ("mono", folder / f"{name}.exe") for name in sources}


LANGUAGES = {"python": python, "javascript": javascript, "java": java, "csharp": csharp}


class Language:
    """Its programs, compiled where that has to be done: commands for radio, application and vectors."""

    def __init__(self, name):
        self.folder = tempfile.TemporaryDirectory(prefix="quillmere-")
        self.commands = {program: [str(part) for part in command]
                         for program, command in LANGUAGES[name](pathlib.Path(self.folder.name)).items()}


class Program:
    """One that runs. What it says on standard output is to be asked for line by line, in order; it never says
    anything on standard error while it runs."""

    def __init__(self, command):
        self.complaints = tempfile.TemporaryFile()
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=self.complaints, encoding="utf-8", preexec_fn=die_with_this_run)
        self.lines = queue.SimpleQueue()
        self.heard = []  # so far, for whoever reads of a failure
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\r\n"))
        self.lines.put(None)

    def failure(self, text):
        self.complaints.seek(0)
        said = "\n  ".join(self.heard[-20:])
        return AssertionError(f"{text}; it said\n  {said}\n{self.complaints.read().decode(errors='replace')}")

    def next_line(self, wanted, patience):
        """None when the patience is over."""
        try:
            line = self.lines.get(timeout=max(patience, 0))
        except queue.Empty:
            return None
        if line is None:
            raise self.failure(f"ended instead of saying '{wanted}'")
        self.heard.append(line)
        return line

    def says(self, *wanted):
        """Exactly these lines, next."""
        for text in wanted:
            line = self.next_line(text, PATIENCE)
            if line != text:
                raise self.failure(f"'{text}' was to come, not {line!r}")

    def says_like(self, pattern):
        """The next line; the whole of it matches."""
        line = self.next_line(pattern, PATIENCE)
        if line is None or not re.fullmatch(pattern, line):
            raise self.failure(f"'{pattern}' was to come, not {line!r}")

    def says_at_last(self, pattern, patience=PATIENCE):
        """A whole line that matches, after any others; gives those."""
        deadline = time.monotonic() + patience
        others = []
        while True:
            line = self.next_line(pattern, deadline - time.monotonic())
            if line is None:
                raise self.failure(f"waited in vain for '{pattern}'")
            if re.fullmatch(pattern, line):
                return others
            others.append(line)

    def is_registered(self, esn):
        """However often it still has to ask, on a busy machine; gives how often."""
        repeats = self.says_at_last(f"registered as {esn}")
        if not set(repeats) <= {"no acknowledgement, again"}:
            raise self.failure(f"said {repeats}")
        return len(repeats)

    def poll(self, seconds):
        """What it says within so long, or None."""
        return self.next_line("anything", seconds)

    def end(self, by=signal.SIGINT):
        """At this signal, in order; gives the lines that it still says."""
        self.process.send_signal(by)
        others = []
        try:
            while (line := self.lines.get(timeout=PATIENCE)) is not None:
                others.append(line)
            code = self.process.wait(PATIENCE)
        except (queue.Empty, subprocess.TimeoutExpired):
            raise self.failure(f"does not end, but says {others}") from None
        self.complaints.seek(0)
        if code != 0 or self.complaints.read():
            raise self.failure(f"ended with {code}")
        return others

    def ends(self, *last_lines, by=signal.SIGINT):
        """Having said only this."""
        others = self.end(by)
        if others != list(last_lines):
            raise self.failure(f"said {others} at its end, not {list(last_lines)}")

    def kill(self):
        """However it stands. Nothing happens to one that has ended."""
        self.process.kill()
        self.process.wait()
        self.reader.join()
        self.process.stdout.close()
        self.complaints.close()


def refusal(command):
    """Of one that is started wrongly: its exit code, standard output and standard error."""
    result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=PATIENCE,
                            check=False)
    return result.returncode, result.stdout, result.stderr
