#!/usr/bin/python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Changes the server, or what is named of the tools, one place at a time and shows which changes no test notices.

All changes are compiled into one copy of the tree; a process picks its own from the environment. Which tests pass a
place is found once, and only those are run for its mutant, the quickest first."""

import argparse
import concurrent.futures
import json
import os
import pathlib
import random
import re
import resource
import shlex
import subprocess
import sys
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from mutants import Source  # noqa: E402

FOLDERS = ("core", "radio", "apps", "db")
SERVER = {"libquillmere_server.a", "libquillmere_protocol.a"}
ATTEMPTS = 12  # at a build: each leaves out what did not compile
PLACES = 1 << 16  # as mutant.h has it
EQUIVALENT = pathlib.Path("tests/mutation/equivalent.txt")


def output(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options)


def write_if_new(path, content):
    path.parent.mkdir(parents=True, exist_ok=True)
    if not path.exists() or path.read_bytes() != content:
        path.write_bytes(content)


class Laboratory:
    """The copy of the tree, its build, and its tests."""

    def __init__(self, folder, files):
        self.tree, self.build = folder / "tree", folder / "build"
        for name in subprocess.check_output(["git", "ls-files"], text=True).splitlines():
            target = self.tree / name
            write_if_new(target, pathlib.Path(name).read_bytes())
            target.chmod(pathlib.Path(name).stat().st_mode)
        configured = output("cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None",
                            "-DCMAKE_CXX_FLAGS=-O1 -w -DQT_FORCE_ASSERTS -D_GLIBCXX_ASSERTIONS")
        if configured.returncode:
            raise SystemExit(configured.stdout)
        self.commands = json.loads((self.build / "compile_commands.json").read_text())
        listed = json.loads(output("ctest", "--test-dir", self.build, "--show-only=json-v1").stdout)
        names = [test["name"] for test in listed["tests"]]
        self.archives = {self.archive_of(name) for name in files}
        self.tests = [name for name in names if name.startswith("tst_") and self.holds_mutants(name)]
        self.targets = list(self.tests)
        if self.archives & SERVER:
            self.tests += [name for name in names if name.startswith(("server_lives", "load_"))]
            self.targets += ["fuzz_server", "quillmere"]

    def archive_of(self, name):
        """The one that a source goes into."""
        [target] = re.findall(r"CMakeFiles/([\w-]+)\.dir/", self.command(name)["command"])[:1]
        return f"lib{target}.a"

    def holds_mutants(self, target):
        return self.archives & {pathlib.Path(name).name
                                for name in output("ninja", "-C", self.build, "-t", "inputs", target).stdout.splitlines()}

    def command(self, name):
        for entry in self.commands:
            if entry["file"] == str(self.tree / name):
                return entry
        raise SystemExit(f"{name} is not compiled")

    def arguments(self, name):
        """What of the compiler's command line says how the source is to be read."""
        words = shlex.split(self.command(name)["command"])
        flags = [word for word in words if word.startswith(("-D", "-std", "-I"))]
        system = [part for at, word in enumerate(words) if word == "-isystem" for part in (word, words[at + 1])]
        return ["-x", "c++", f"-I{os.getcwd()}"] + flags + system

    def write(self, sources, left_out):
        for source in sources:
            text = f'#include "tests/mutation/mutant.h"\n#line 1\n{source.mutated(left_out)}'
            write_if_new(self.tree / source.path, text.encode())

    def make(self, sources):
        """Builds with all that compiles; returns the numbers of what does not."""
        left_out = set()
        for _ in range(ATTEMPTS):
            self.write(sources, left_out)
            result = output("ninja", "-C", self.build, "-k", "0", *self.targets)
            if result.returncode == 0:
                return left_out
            # The compiler cache may give the compiler a relative path.
            place = rf"^(?:\S*/)?{self.tree.name}/(\S+?):(\d+):.*(?:error|required from|was not initialized)"
            wrong = set(re.findall(place, result.stdout, re.MULTILINE))
            found = {mutant.number for source in sources for mutant in source.mutants
                     if (mutant.file, str(mutant.line)) in wrong}
            if found <= left_out:
                raise SystemExit("\n".join(line for line in result.stdout.splitlines() if "error" in line)[:5000])
            left_out |= found
        raise SystemExit("the mutated sources cannot be built")

    def passes(self, test, limit, **variables):
        # A test that hangs would have a debugger look at it first.
        result = output("ctest", "--test-dir", self.build, "-Q", "-R", f"^{test}$", "--timeout", str(limit),
                        env=os.environ | {"QTEST_DISABLE_STACK_DUMP": "1"} | variables)
        return result.returncode == 0


def survey(laboratory, tests, jobs):
    """For each test how long it takes and which places it passes."""

    def visit(test):
        note = laboratory.build / f"passed-{test}"
        note.write_bytes(bytes(PLACES))
        begin = time.monotonic()
        if not laboratory.passes(test, 300, QUILLMERE_MUTANTS_PASSED=str(note)):
            raise SystemExit(f"{test} fails though nothing is changed")
        return test, (time.monotonic() - begin, note.read_bytes())

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        return dict(pool.map(visit, tests))


def fate(laboratory, surveyed, mutant):
    """Which test notices it, twice, so that it is not the machine: a name; "": none."""
    passing = sorted((seconds, test) for test, (seconds, places) in surveyed.items() if places[mutant.number])
    for seconds, test in passing:
        if not any(laboratory.passes(test, 10 + 4 * seconds, QUILLMERE_MUTANT=str(mutant.number)) for _ in range(2)):
            return test
    return ""


def equivalent():
    """The names of the mutants that nobody could notice; below each, indented, the reason."""
    return {line for line in EQUIVALENT.read_text().splitlines() if line and not line.startswith((" ", "#"))}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--sample", type=int, help="only so many, taken at random")
    parser.add_argument("--seed", type=int, default=1, help="of the sample")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--least", type=int, default=90, help="per cent to be killed, or the run fails (default: 90)")
    parser.add_argument("--list", action="store_true", help="name them and do nothing else")
    parser.add_argument("--again", type=pathlib.Path, metavar="LOG", help="only those that survived an earlier run")
    parser.add_argument("files", nargs="*", help="sources (default: all of the server's own)")
    options = parser.parse_args()
    files = options.files or sorted(str(path) for folder in FOLDERS for path in pathlib.Path(folder).glob("*.cpp"))

    # A mutant that crashes is not worth an image of its memory.
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    laboratory = Laboratory(pathlib.Path("build-mutate").resolve(), files)
    sources, number = [], 0
    for name in files:
        sources.append(Source(pathlib.Path(name), laboratory.arguments(name), number))
        number = sources[-1].number
    if options.list:
        print("\n".join(mutant.name() for source in sources for mutant in source.mutants))
        return 0
    left_out = laboratory.make(sources)
    known = equivalent()
    mutants = [mutant for source in sources for mutant in source.mutants if mutant.number not in left_out]
    print(f"{len(mutants)} mutants, and {len(left_out)} that cannot be compiled so", flush=True)
    mutants = [mutant for mutant in mutants if mutant.name() not in known]
    if options.again:
        survived = {line.split(maxsplit=2)[2] for line in options.again.read_text().splitlines()
                    if line.startswith("SURVIVED")}
        mutants = [mutant for mutant in mutants if mutant.name() in survived]
    if options.sample:
        mutants = random.Random(options.seed).sample(mutants, min(options.sample, len(mutants)))

    surveyed = survey(laboratory, laboratory.tests, options.jobs)
    killed = 0
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for ended in concurrent.futures.as_completed(
                pool.submit(lambda one: (one, fate(laboratory, surveyed, one)), mutant) for mutant in mutants):
            mutant, test = ended.result()
            killed += test != ""
            print(f"{'killed by ' + test if test else 'SURVIVED':40} {mutant.file}:{mutant.line} {mutant.name()}",
                  flush=True)
    share = 100 * killed / max(1, len(mutants))
    print(f"mutants: {killed} of {len(mutants)} killed ({share:.0f} %)")
    return 0 if share >= options.least else 1


if __name__ == "__main__":
    sys.exit(main())
