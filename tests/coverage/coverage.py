#!/usr/bin/python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Tells what the tests have executed of the server, from the counts in a build folder: coverage.py [--list] BUILD

Branches that only an exception takes are not counted: nothing here throws, and the compiler makes one of each call.
Each line that is not executed stands in left.txt with its reason, and nothing else does. With --list, the branches that
are never taken are printed too.
"""

import argparse
import collections
import json
import os
import pathlib
import re
import subprocess
import sys

SERVER, HOST = ("core", "radio", "apps", "db"), ("service",)
LINES, BRANCHES, HOST_LINES = 100, 95, 95  # per cent, at least; LINES without those in left.txt
NOW_AND_THEN = "Now and then"  # begins the reason of lines that are executed in some runs
LEFT = pathlib.Path(__file__).resolve().parent / "left.txt"


class Count:
    def __init__(self):
        self.total = self.executed = 0

    def add(self, is_executed):
        self.total += 1
        self.executed += bool(is_executed)

    def share(self):
        return 100 * self.executed / self.total

    def text(self):
        """Rounded down: 100 % is all of them."""
        return f"{int(10 * self.share()) / 10:.1f}"

    def __str__(self):
        return f"{self.text()} % ({self.executed} of {self.total})"


class Folder:
    def __init__(self):
        self.lines, self.branches = Count(), Count()


def collect(build):
    """Has gcovr read the counts; it leaves the report."""
    report = build / "report"
    report.mkdir(exist_ok=True)
    result = report / "coverage.json"
    filters = [word for folder in SERVER + HOST for word in ("--filter", f"{re.escape(os.getcwd())}/{folder}/")]
    subprocess.run(["gcovr", "--root", ".", "--object-directory", str(build), "-j", str(os.cpu_count()), *filters,
                    "--exclude-throw-branches", "--exclude-unreachable-branches",
                    "--json", str(result), "--html-details", str(report / "index.html"), str(build)], check=True)
    return json.loads(result.read_text())["files"]


def left():
    """The lines of left.txt, as 'file: text', each as often as it stands there; and those that may be executed."""
    listed, uncertain, block = collections.Counter(), collections.Counter(), []
    for line in LEFT.read_text(encoding="utf-8").splitlines():
        if line.startswith(" "):
            listed.update(block)
            if line.strip().startswith(NOW_AND_THEN):
                uncertain.update(block)
            block = []
        elif line and not line.startswith("#"):
            block.append(line)
        elif block:
            break
    if block:
        sys.exit(f"{LEFT.name}: no reason below '{block[-1]}'")
    return listed, uncertain


def main():
    arguments = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    arguments.add_argument("build", type=pathlib.Path)
    arguments.add_argument("--list", action="store_true")
    options = arguments.parse_args()

    folders, found, partly = collections.defaultdict(Folder), collections.Counter(), []
    places = collections.defaultdict(list)
    for file in collect(options.build):
        source = pathlib.Path(file["file"]).read_text(encoding="utf-8").splitlines()
        for line in file["lines"]:
            if line["gcovr/noncode"]:
                continue
            text = source[line["line_number"] - 1].strip()
            for folder in (file["file"].partition("/")[0], "server"):
                if folder == "server" and file["file"].startswith(HOST):
                    continue
                folders[folder].lines.add(line["count"])
                for branch in line["branches"]:
                    folders[folder].branches.add(branch["count"])
            if not line["count"]:
                name = f"{file['file']}: {text}"
                found[name] += 1
                places[name].append(line["line_number"])
            elif not all(branch["count"] for branch in line["branches"]):
                taken = "".join("-+"[branch["count"] > 0] for branch in line["branches"])
                partly.append(f"{file['file']}:{line['line_number']} [{taken}] {text}")

    if options.list:
        print("\n".join(partly))
    for folder in SERVER + HOST:
        print(f"{folder}: lines {folders[folder].lines}, branches {folders[folder].branches}")
    listed, uncertain = left()
    wrong = [f"never executed, and not in {LEFT.name}: {name} (line {', '.join(map(str, places[name]))})"
             for name in found - listed]
    wrong += [f"in {LEFT.name}, but executed, or no line: {name}" for name in listed - found - uncertain]
    server, host = folders["server"], folders[HOST[0]]
    excused = sum(count for name, count in listed.items() if not name.startswith(HOST))
    if 100 * (server.lines.executed + excused) < LINES * server.lines.total:
        wrong.append(f"less than {LINES} % of the lines of {', '.join(SERVER)}")
    if server.branches.share() < BRANCHES:
        wrong.append(f"less than {BRANCHES} % of the branches of {', '.join(SERVER)}")
    if host.lines.share() < HOST_LINES:
        wrong.append(f"less than {HOST_LINES} % of the lines of {HOST[0]}")
    print(f"{sum(listed.values())} lines are listed with their reason; report: {options.build}/report/index.html")
    for one in wrong:
        print(f"FAILED: {one}")
    print(f"coverage: lines {server.lines.text()} %, branches {server.branches.text()} %")
    sys.exit(bool(wrong))


if __name__ == "__main__":
    main()
