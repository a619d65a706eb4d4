#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""quillmere-watch's live table on a terminal: terminal.py QUILLMERE-WATCH"""

import fcntl
import os
import pty
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import termios
import time
import unittest

sys.dont_write_bytecode = True

import wire  # noqa: E402
from wire import PATIENCE, REGISTERED  # noqa: E402

RADIOS = 30
FULL_SCREEN, NORMAL_SCREEN = b"\x1b[?1049h\x1b[?25l", b"\x1b[?25h\x1b[?1049l"

watch = ""


def notice(number):
    esn, suid = bytes([0] * 7 + [number]), bytes([0x12, 0x34, 0x56, 0x78, 0, 0, number])
    return wire.notice(esn, suid, f"127.1.0.{number}", REGISTERED, b"\x02")


class LiveTable(unittest.TestCase):
    def setUp(self):
        listener = socket.create_server(("127.0.0.1", 0))
        listener.settimeout(PATIENCE)
        self.addCleanup(listener.close)
        self.terminal, self.other_end = pty.openpty()
        self.addCleanup(os.close, self.terminal)
        self.addCleanup(os.close, self.other_end)
        self.resize(12, 100)
        self.settings = termios.tcgetattr(self.other_end)
        self.output = b""
        environment = {k: v for k, v in os.environ.items() if k != "NO_COLOR"} | {"TERM": "xterm"} | self.variables()
        self.watch = subprocess.Popen(
            [watch, "--table", "--server", f"127.0.0.1:{listener.getsockname()[1]}"],
            stdin=self.other_end, stdout=self.other_end, stderr=self.other_end, env=environment, start_new_session=True,
        )
        self.addCleanup(self.watch.wait)
        self.addCleanup(self.watch.kill)
        self.server, _ = listener.accept()
        self.addCleanup(self.server.close)
        self.server.sendall(b"".join(notice(number) for number in range(1, RADIOS + 1)))

    def variables(self):
        return {"NO_COLOR": "1"} if self.id().endswith("without_colours") else {}

    def resize(self, rows, columns):
        fcntl.ioctl(self.terminal, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def wait_for(self, condition):
        """Reads the terminal until the condition holds, and gives its value."""
        end = time.monotonic() + PATIENCE
        while not (value := condition()):
            self.assertLess(time.monotonic(), end, self.output[-2000:])
            if select.select([self.terminal], [], [], 0.1)[0]:
                self.output += os.read(self.terminal, 65536)
        return value

    def frame(self):
        """What stands on the terminal: the lines of the last whole frame, control sequences and all."""
        frames = re.findall(rb"\x1b\[H((?:(?!\x1b\[H).)*?)\x1b\[J", self.output, re.S)
        return [line.rstrip("\r") for line in frames[-1].decode().split("\n")] if frames else []

    def text(self):
        return [re.sub(r"\x1b\[[0-9;?]*[A-Za-z]", "", line) for line in self.frame()]

    def wait_for_table(self, rows, columns):
        left_out = RADIOS - (rows - 3)
        lines = self.wait_for(lambda: (t := self.text()) and t[-1].startswith(f"  ... and {left_out} more") and t)
        self.assertEqual(len(lines), rows)
        self.assertLessEqual(max(map(len, lines)), columns)
        return lines

    def test_fills_the_window_and_follows_its_size(self):
        lines = self.wait_for_table(12, 100)
        self.assertTrue(lines[0].startswith(f"{RADIOS} radios, connected to 127.0.0.1:"), lines[0])
        self.assertRegex(lines[2], r"^[ >] 0000000000000001 12345/678/000001  127\.1\.0\.1 +registered +2 *$")
        self.resize(20, 40)
        os.kill(self.watch.pid, signal.SIGWINCH)
        lines = self.wait_for_table(20, 40)
        self.assertRegex(lines[2], r"^[ >] 0000000000000001 12345/678/000001")

    def test_colours_the_states(self):
        self.wait_for_table(12, 100)
        self.assertRegex(self.frame()[2], r"\x1b\[32mregistered *\x1b\[0m")

    def test_without_colours(self):
        self.wait_for_table(12, 100)
        self.assertNotRegex("\n".join(self.frame()), r"\x1b\[[0-9;]*m")

    def test_leaves_the_terminal_as_it_was_at_an_interrupt(self):
        self.ends_with(signal.SIGINT)

    def test_leaves_the_terminal_as_it_was_when_asked_to_end(self):
        self.ends_with(signal.SIGTERM)

    def ends_with(self, end):
        self.wait_for_table(12, 100)
        self.watch.send_signal(end)
        self.wait_for(lambda: NORMAL_SCREEN in self.output and self.watch.poll() is not None)
        self.assertEqual(self.watch.returncode, 0)
        self.assertTrue(self.output.startswith(FULL_SCREEN), self.output[:50])
        self.assertEqual(termios.tcgetattr(self.other_end), self.settings)
        # The table as it last was stays in the scrolled text.
        last = self.wait_for(lambda: (t := self.output.partition(NORMAL_SCREEN)[2]).count(b"registered") == RADIOS and t)
        self.assertNotIn(b"\x1b[H", last)


if __name__ == "__main__":
    watch = sys.argv.pop(1)
    unittest.main(verbosity=2)
