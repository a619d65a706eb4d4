#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A tool whose standard output cannot be written says so and ends: output.py FOLDER-OF-THE-PROGRAMS"""

import os
import pathlib
import pty
import socket
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from wire import PATIENCE, free_port  # noqa: E402

FOLDER = sys.argv[1]
NOTICE = bytes.fromhex("514d524104011600" "0011aabb22cc33dd" "123456789abcde" "00" "0200007f" "03" "00")


class Output(unittest.TestCase):
    """A disk that is full, and a pipe that nobody reads any more."""

    def ends(self, tool, *arguments, code=1):
        closed, nobody_reads = os.pipe()
        os.close(closed)
        with open("/dev/full", "wb") as full, open(nobody_reads, "wb", buffering=0) as pipe:
            for output, reason in ((full, "No space left on device"), (pipe, "Broken pipe")):
                with self.subTest(tool=tool, arguments=arguments, reason=reason):
                    done = subprocess.run([os.path.join(FOLDER, tool), *arguments], stdout=output, stderr=subprocess.PIPE,
                                          check=False, timeout=PATIENCE)
                    self.assertEqual(done.stderr.decode(), f"{tool}: standard output: {reason}\n")
                    self.assertEqual(done.returncode, code)

    def test_help_and_version(self):
        for tool, code in (("quillmere-radio", 1), ("quillmere-watch", 1), ("quillmere-monitor", 1), ("quillmere-check", 3)):
            for option in ("--help", "--version"):
                self.ends(tool, option, code=code)

    def test_findings(self):
        with tempfile.TemporaryDirectory() as folder:
            self.ends("quillmere-check", "--stopped", "--folder", folder, code=3)
            self.ends("quillmere-check", "--stopped", "--json", "--folder", folder, code=3)

    def test_radio(self):
        self.ends("quillmere-radio", "deregister", "--by-address", "--server", f"127.0.0.1:{free_port(socket.SOCK_DGRAM)}")

    def test_notices(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            server.settimeout(PATIENCE)
            for option in (), ("--json",):
                with open("/dev/full", "wb") as full:
                    tool = subprocess.Popen([os.path.join(FOLDER, "quillmere-watch"), "--server",
                                             f"127.0.0.1:{server.getsockname()[1]}", *option],
                                            stdout=full, stderr=subprocess.PIPE)
                with tool, server.accept()[0] as connection:
                    connection.sendall(NOTICE)
                    self.assertEqual(tool.communicate(timeout=PATIENCE)[1].decode().splitlines()[-1],
                                     "quillmere-watch: standard output: No space left on device")
                self.assertEqual(tool.returncode, 1)

    def test_terminal_that_goes_after_the_first_line(self):
        ours, terminal = pty.openpty()
        with socket.create_server(("127.0.0.1", 0)) as server:
            server.settimeout(PATIENCE)
            tool = subprocess.Popen([os.path.join(FOLDER, "quillmere-watch"), "--server",
                                     f"127.0.0.1:{server.getsockname()[1]}"],
                                    stdin=subprocess.DEVNULL, stdout=terminal, stderr=subprocess.PIPE)
            os.close(terminal)
            with tool, server.accept()[0] as connection:
                try:
                    connection.sendall(NOTICE)
                    self.assertTrue(os.read(ours, 4096).startswith(b"0011AABB22CC33DD "))
                    os.close(ours)
                    connection.sendall(NOTICE)
                    self.assertEqual(tool.communicate(timeout=PATIENCE)[1].decode().splitlines()[-1],
                                     "quillmere-watch: standard output: Input/output error")
                finally:
                    tool.kill()
            self.assertEqual(tool.returncode, 1)


unittest.main(argv=sys.argv[:1])
