#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The documents, and the manual pages made of them, have the options that the programs' help has: options.py DOCS BIN"""

import os
import re
import subprocess
import sys

OPTION = re.compile(r"(?<![\w-])--[a-z][a-z-]*")


def section(document, heading):
    with open(document, encoding="utf-8") as text:
        return re.search(rf"^## {heading}\n(.*?)(?=^## |\Z)", text.read(), re.MULTILINE | re.DOTALL)[1]


def told(*command):
    return subprocess.run(command, capture_output=True, check=False).stdout.decode()


def main():
    docs, programs = sys.argv[1:]
    different = []

    def compare(name, documented, helped):
        different.extend(f"{name}: {option} is not in the document" for option in sorted(helped - documented))
        different.extend(f"{name}: {option} is not in the help" for option in sorted(documented - helped))

    tools = os.path.join(docs, "tools.md")
    radio, watch, server = (os.path.join(programs, name) for name in ("quillmere-radio", "quillmere-watch", "quillmere"))
    for_all = {"--help", "--version"}
    helps = "".join(told(radio, command, "--help") for command in ("register", "deregister", "listen", "fleet"))
    compare("quillmere-radio", set(OPTION.findall(section(tools, "quillmere-radio"))) - for_all,
            set(OPTION.findall(helps)) - for_all)
    compare("quillmere-watch", set(OPTION.findall(section(tools, "quillmere-watch"))) - for_all,
            set(OPTION.findall(told(watch, "--help"))) - for_all)
    letters = re.findall(r"^\t-([a-z])\(", told(server, "-h"), re.MULTILINE)
    table = section(os.path.join(docs, "operations.md"), "The command line").split("\n\n")[1]
    compare("quillmere", set(re.findall(r"`(?:quillmere )?-([a-z])\b", table)), set(letters))
    if not helps or not letters:
        different.append("a program gave no help")
    for line in different:
        print(line)
    return 1 if different else 0


sys.exit(main())
