#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""What bash and zsh offer is what the programs' help has: completion.py COMPLETION-FOLDER PROGRAMS-FOLDER"""

import os
import re
import shutil
import subprocess
import sys
import unittest

COMPLETION, PROGRAMS = sys.argv[1:3]
COMMANDS = ("register", "deregister", "listen", "fleet")
LISTED = re.compile(r"^ +(--[a-z][a-z-]*)", re.MULTILINE)

# The words of the command line up to the one that is completed, then what is offered, a line each.
BASH = r"""
source "$1/quillmere.bash"
shift
compopt() { :; }
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
offer=$(complete -p "$1" | sed 's/.* -F \([a-z_]*\) .*/\1/')
$offer "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
printf '%s\n' "${COMPREPLY[@]}"
"""
ZSH = r"""
file=$1/_quillmere
shift
words=("$@")
CURRENT=$#
service=$1
compadd() { shift; print -rl -- ${(M)@:#$words[CURRENT]*} }
_files() { [[ $1 == -/ ]] && print -rl -- ${words[CURRENT]}*(N/) || print -rl -- ${words[CURRENT]}*(N) }
_users() { print -rl -- ${(M)${(f)"$(cut -d: -f1 /etc/passwd)"}:#$words[CURRENT]*} }
complete_it() { source $file }
complete_it
"""


def helped(*command):
    return subprocess.run(command, capture_output=True, check=True).stdout.decode()


def options(*command):
    return set(LISTED.findall(helped(*command, "--help")))


class Shell:
    """The same for both."""

    def offered(self, *words):
        path = PROGRAMS + os.pathsep + os.environ["PATH"]
        done = subprocess.run([*self.shell, COMPLETION, *words], capture_output=True, check=True, timeout=60,
                              env={**os.environ, "PATH": path})
        self.assertEqual(done.stderr, b"")
        return set(done.stdout.decode().split())

    def test_service(self):
        letters = re.findall(r"^\t-([a-z])\(([a-z]+)\)", helped("quillmere", "-h"), re.MULTILINE)
        self.assertEqual(len(letters), 9)
        self.assertEqual(self.offered("quillmere", ""), {f"-{letter}{rest}" for letter, rest in letters})
        self.assertEqual(self.offered("quillmere", "-in"), {"-install"})
        self.assertEqual(self.offered("quillmere", "-install", ""), set())

    def test_radio(self):
        self.assertEqual(self.offered("quillmere-radio", ""), {*COMMANDS, "--help", "--version"})
        self.assertEqual(self.offered("quillmere-radio", "de"), {"deregister"})
        for command in COMMANDS:
            with self.subTest(command):
                self.assertGreater(len(options("quillmere-radio", command)), 5)
                self.assertEqual(self.offered("quillmere-radio", command, "--json", ""), options("quillmere-radio", command))

    def test_watch(self):
        self.assertEqual(self.offered("quillmere-watch", ""), options("quillmere-watch") | {"report"})
        self.assertEqual(self.offered("quillmere-watch", "--json", ""), options("quillmere-watch"))

    def test_check(self):
        self.assertEqual(self.offered("quillmere-check", ""), options("quillmere-check"))
        self.assertEqual(self.offered("quillmere-check", "--st"), {"--stopped"})
        self.assertEqual(self.offered("quillmere-check", "--folder", "/us"), {"/usr"})
        self.assertEqual(self.offered("quillmere-check", "--account", "roo"), {"root"})

    def test_monitor(self):
        self.assertEqual(self.offered("quillmere-monitor", ""), options("quillmere-monitor"))
        self.assertEqual(self.offered("quillmere-monitor", "--li"), {"--listen"})
        self.assertIn("/etc/passwd", self.offered("quillmere-monitor", "--login", "/etc/passw"))


class Bash(Shell, unittest.TestCase):
    shell = ("bash", "-c", BASH, "bash")


class Zsh(Shell, unittest.TestCase):
    shell = ("zsh", "-f", "-c", ZSH, "zsh")


if __name__ == "__main__":
    if not shutil.which("zsh"):
        print("SKIPPED: completion: zsh is not installed")
        sys.exit(1 if os.environ.get("CI") == "true" else 77)
    os.environ["PATH"] = PROGRAMS + os.pathsep + os.environ["PATH"]
    unittest.main(argv=sys.argv[:1])
