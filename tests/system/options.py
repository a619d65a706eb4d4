#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The documents, and the manual pages made of them, have the options that the programs' help has: options.py DOCS BIN"""

import os
import re
import subprocess
import sys

OPTION = re.compile(r"(?<![\w-])--[a-z][a-z-]*")
LISTED = re.compile(r"^ +(--[a-z][a-z-]*)", re.MULTILINE)  # in a help, at the beginning of a line


def section(document, heading):
    with open(document, encoding="utf-8") as text:
        return re.search(rf"^## {heading}\n(.*?)(?=^## |\Z)", text.read(), re.MULTILINE | re.DOTALL)[1]


def told(*command):
    return subprocess.run(command, capture_output=True, check=False).stdout.decode()


def rows(text):
    """The cells of the section's first table."""
    table = re.search(r"(?:^\|.*\n)+", text, re.MULTILINE)[0]
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in table.splitlines()[2:]]


def main():
    docs, programs = sys.argv[1:]
    tools = os.path.join(docs, "tools.md")
    radio, server = (os.path.join(programs, name) for name in ("quillmere-radio", "quillmere"))
    different = []

    def compare(name, documented, helped):
        different.extend(f"{name}: {option} is not in the document" for option in sorted(helped - documented))
        different.extend(f"{name}: {option} is not in the help" for option in sorted(documented - helped))
        if not helped:
            different.append(f"{name}: no help")

    commands = ("register", "deregister", "listen", "fleet")
    for command in commands:
        documented = set()
        for option, of, *_ in rows(section(tools, "quillmere-radio")):
            of_all = of.startswith("all") and not of.endswith("but " + command)
            if of_all or command in of.split(", "):
                documented |= set(OPTION.findall(option))
        compare("quillmere-radio " + command, documented,
                set(LISTED.findall(told(radio, command, "--help"))) - {"--help"})
    for name in ("quillmere-watch", "quillmere-monitor", "quillmere-check"):
        tool = os.path.join(programs, name)
        compare(name, {option for row in rows(section(tools, name)) for option in OPTION.findall(row[0])},
                set(LISTED.findall(told(tool, "--help"))) - {"--help", "--version"})
    helped = re.findall(r"^\t-([a-z])\(([a-z]+)\)", told(server, "-h"), re.MULTILINE)
    table = rows(section(os.path.join(docs, "operations.md"), "The command line"))
    compare("quillmere", {option for row in table for option in re.findall(r"`(?:quillmere )?-([a-z]+)", row[0])},
            {letter for letter, _ in helped} | {letter + rest for letter, rest in helped})
    for line in different:
        print(line)
    return 1 if different else 0


sys.exit(main())
