#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""The tools find hosts by name, as the system's resolver does.

usage: hostnames.py <folder of the programs>

The run has a network of its own without a way out, and its own list of hosts. Exits with 77 where that cannot be made,
with 1 there when CI is true.
"""

import json
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from foreground import Server, memory_folder  # noqa: E402
from namespaces import MS_BIND, CannotRun, call, enter, skipped  # noqa: E402
from wire import PATIENCE  # noqa: E402

HOSTS = """
127.0.0.1 localhost
::1 six.radios.example
::1 both.radios.example
127.0.0.1 both.radios.example
127.0.0.5 portable-5
"""
FILES = {"hosts": HOSTS, "resolv.conf": "", "nsswitch.conf": "hosts: files dns\n"}
RADIO = ("--esn", "0011AABB22CC3301", "--suid", "12345/678/9ABC01")


class HostNames(unittest.TestCase):
    """Against a server at 127.0.0.1."""

    def setUp(self):
        folder = memory_folder()
        self.addCleanup(folder.cleanup)
        self.server = Server(os.path.join(PROGRAMS, "quillmere"), pathlib.Path(folder.name))
        self.addCleanup(self.server.kill)
        self.server.start()

    def run_tool(self, tool, *arguments, code=0):
        done = subprocess.run([os.path.join(PROGRAMS, tool), *arguments], capture_output=True, text=True, check=False,
                              timeout=PATIENCE)
        self.assertEqual(done.returncode, code, done.stderr)
        return done

    def watched_until_it_fails(self, server):
        """What the tool says until it has failed to connect once."""
        command = [os.path.join(PROGRAMS, "quillmere-watch"), "--server", server, "--for", str(PATIENCE)]
        said = ""
        with subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True) as tool:
            for line in tool.stderr:
                said += line
                if "trying again" in line or "connected to" in line:
                    break
            tool.kill()
        self.assertRegex(said, "trying again|connected to")
        return said

    def test_names(self):
        self.run_tool("quillmere-radio", "register", *RADIO, "--server", "both.radios.example", "--from", "portable-5",
                      "--retries", "5")
        watched = self.run_tool("quillmere-watch", "--server", "both.radios.example:9361", "--count", "1", "--json")
        self.assertEqual(json.loads(watched.stdout.splitlines()[-1])["address"], "127.0.0.5")
        self.assertIn("connected to both.radios.example:9361", watched.stderr)
        reported = self.run_tool("quillmere-watch", "report", RADIO[1], "portable-5", "--server", "localhost", "--json",
                                 "--for", "20")
        self.assertIn("unconfirmed", reported.stdout)
        fleet = self.run_tool("quillmere-radio", "fleet", "--count", "1", "--server", "localhost:9361", "--json")
        self.assertEqual(json.loads(fleet.stdout.splitlines()[-1])["acknowledged"], 1)

    def test_host_without_an_address(self):
        for arguments in (("--server", "six.radios.example"), ("--from", "six.radios.example")):
            done = self.run_tool("quillmere-radio", "register", *RADIO, *arguments, code=1)
            self.assertEqual(done.stderr, f"quillmere-radio: {arguments[0]}: 'six.radios.example' has no IPv4 address\n")
        done = self.run_tool("quillmere-watch", "report", RADIO[1], "six.radios.example", code=1)
        self.assertEqual(done.stderr, "quillmere-watch: 'six.radios.example' has no IPv4 address\n")
        with socket.create_server(("::1", 9361), family=socket.AF_INET6):
            self.assertNotIn("connected to", self.watched_until_it_fails("six.radios.example"))

    def test_name_that_nobody_knows(self):
        done = self.run_tool("quillmere-radio", "register", *RADIO, "--server", "nowhere.example", code=1)
        self.assertRegex(done.stderr, r"\Aquillmere-radio: --server: 'nowhere\.example' cannot be looked up: [^\n]+\n\Z")
        self.assertNotIn("connected to", self.watched_until_it_fails("nowhere.example"))


def main():
    try:
        enter()
        # A resolver's daemon would be asked through its socket in /run, and would ask the real network.
        call("mount", b"tmpfs", b"/run", b"tmpfs", 0, None)
        try:
            socket.create_server(("::1", 0), family=socket.AF_INET6).close()
        except OSError as reason:
            raise CannotRun(f"no IPv6: {reason}") from reason
        with tempfile.TemporaryDirectory() as folder:
            for name, text in FILES.items():
                file = os.path.join(folder, name)
                with open(file, "w", encoding="ascii") as written:
                    written.write(text)
                call("mount", file.encode(), f"/etc/{name}".encode(), None, MS_BIND, None)
            return 0 if unittest.main(argv=sys.argv[:1], exit=False).result.wasSuccessful() else 1
    except CannotRun as reason:
        return skipped("host names", reason)


if len(sys.argv) != 2:
    sys.exit(__doc__)
PROGRAMS = os.path.abspath(sys.argv[1])
sys.exit(main())
