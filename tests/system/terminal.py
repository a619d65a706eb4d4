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
UP, DOWN, PAGE_UP, PAGE_DOWN, HOME, END = b"\x1b[A", b"\x1b[B", b"\x1b[5~", b"\x1b[6~", b"\x1b[H", b"\x1b[F"
ESCAPE, CTRL_C, CTRL_Z, CTRL_BACKSLASH = b"\x1b", b"\x03", b"\x1a", b"\x1c"
ROWS_AROUND = 4  # the table's lines that are no radios

watch = ""


def notice(number, availability=REGISTERED):
    esn, suid = bytes([0] * 7 + [number]), bytes([0x12, 0x34, 0x56, 0x78, 0, 0, number])
    return wire.notice(esn, suid, f"127.1.0.{number}", availability, b"\x02")


class Terminal(unittest.TestCase):
    """A terminal, a server, and quillmere-watch between them."""

    def setUp(self):
        self.listen(0)
        self.server_name = f"127.0.0.1:{self.listener.getsockname()[1]}"
        self.terminal, self.other_end = self.new_terminal()
        self.resize(12, 100)
        self.settings = termios.tcgetattr(self.other_end)
        self.output = b""

    def listen(self, port):
        self.listener = socket.create_server(("127.0.0.1", port))
        self.listener.settimeout(PATIENCE)
        self.addCleanup(self.listener.close)

    def new_terminal(self):
        ends = pty.openpty()
        for end in ends:
            self.addCleanup(os.close, end)
        return ends

    def start(self, **streams):
        ends = {name: self.other_end for name in ("stdin", "stdout", "stderr")} | streams
        self.watch = self.process([watch, "--table", "--server", self.server_name], **ends)
        self.accept()

    def process(self, command, **options):
        environment = {k: v for k, v in os.environ.items() if k != "NO_COLOR"} | {"TERM": "xterm"} | self.variables()
        process = subprocess.Popen(command, env=environment, start_new_session=True, **options)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def accept(self):
        self.server, _ = self.listener.accept()
        self.addCleanup(self.server.close)
        self.tell(range(1, RADIOS + 1))

    def tell(self, numbers, *availability):
        self.server.sendall(b"".join(notice(number, *availability) for number in numbers))

    def variables(self):
        return {"NO_COLOR": "1"} if self.id().endswith("without_colours") else {}

    def resize(self, rows, columns):
        fcntl.ioctl(self.terminal, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def press(self, *keys):
        os.write(self.terminal, b"".join(keys))

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

    def wait_for_table(self, rows=12, columns=100):
        lines = self.wait_for_foot(f"1-{rows - ROWS_AROUND} of {RADIOS}, by ESN")
        self.assertEqual(len(lines), rows)
        self.assertLessEqual(max(map(len, lines)), columns)
        return lines

    def wait_for_foot(self, beginning):
        return self.wait_for(lambda: (t := self.text()) and t[-1].startswith(beginning) and t)

    def wait_for_end(self):
        self.wait_for(lambda: NORMAL_SCREEN in self.output and self.watch.poll() is not None)
        self.assertEqual(self.watch.returncode, 0)
        self.assertTrue(self.output.startswith(FULL_SCREEN), self.output[:50])
        self.assertEqual(termios.tcgetattr(self.other_end), self.settings)
        # The table as it last was stays in the scrolled text.
        last = self.wait_for(lambda: (t := self.output.partition(NORMAL_SCREEN)[2]).count(b"registered") == RADIOS and t)
        self.assertNotIn(b"\x1b[H", last)


class LiveTable(Terminal):
    def setUp(self):
        super().setUp()
        self.start()

    def test_fills_the_window_and_follows_its_size(self):
        lines = self.wait_for_table()
        self.assertTrue(lines[0].startswith(f"{RADIOS} radios, connected to 127.0.0.1:"), lines[0])
        self.assertEqual(lines[1], f"registered {RADIOS}")
        self.assertRegex(lines[3], r"^[ >] 0000000000000001 12345/678/000001  127\.1\.0\.1 +registered +- +2 *$")
        self.resize(20, 40)
        os.kill(self.watch.pid, signal.SIGWINCH)
        lines = self.wait_for_table(20, 40)
        self.assertRegex(lines[3], r"^[ >] 0000000000000001 registered +- *$")

    def test_shows_how_long_ago_a_radio_changed(self):
        self.wait_for_table()
        self.tell([1], 1)
        for age in range(3):
            self.wait_for(lambda age=age: re.search(rf" unreachable {age} s +2$", self.text()[3]))

    def test_is_drawn_anew_in_a_window_of_another_size(self):
        lines = self.wait_for_table()
        frames = self.output.count(b"\x1b[H")
        self.resize(12, 101)
        self.wait_for(lambda: self.output.count(b"\x1b[H") > frames)
        self.assertEqual(self.text(), lines)

    def test_comes_back_after_a_stop_that_nobody_announced(self):
        self.wait_for_table()
        settings = termios.tcgetattr(self.other_end)
        for left_by_shell in self.settings, settings:
            self.watch.send_signal(signal.SIGSTOP)
            os.waitpid(self.watch.pid, os.WUNTRACED)
            termios.tcsetattr(self.other_end, termios.TCSANOW, left_by_shell)
            self.output = b""
            self.watch.send_signal(signal.SIGCONT)
            self.wait_for_table()
            self.assertEqual(termios.tcgetattr(self.other_end), settings)
        self.output = FULL_SCREEN + self.output
        self.press(b"q")
        self.wait_for_end()

    def test_colours_the_states(self):
        self.wait_for_table()
        self.assertRegex(self.frame()[3], r"\x1b\[32mregistered *\x1b\[0m")

    def test_without_colours(self):
        self.wait_for_table()
        self.assertNotRegex("\n".join(self.frame()), r"\x1b\[[0-9;]*m")

    def test_leaves_the_terminal_as_it_was_at_an_interrupt(self):
        self.ends_with(signal.SIGINT)

    def test_leaves_the_terminal_as_it_was_when_asked_to_end(self):
        self.ends_with(signal.SIGTERM)

    def ends_with(self, end):
        self.wait_for_table()
        self.watch.send_signal(end)
        self.wait_for_end()

    def test_shows_how_old_the_radios_are_while_the_server_is_away(self):
        self.wait_for_table()
        self.server.close()
        self.listener.close()
        self.wait_for(lambda: re.match(rf"{RADIOS} radios as they were 1 s ago; {self.server_name}: .*; trying again in ",
                                       self.text()[0]))
        self.listen(int(self.server_name.partition(":")[2]))
        self.accept()
        self.wait_for(lambda: self.text()[0] == f"{RADIOS} radios, connected to {self.server_name}")


class LiveKeys(Terminal):
    def setUp(self):
        super().setUp()
        self.start()
        self.wait_for_table()

    def radios(self):
        """The numbers of the radios that are shown."""
        return [int(line[2:18], 16) for line in self.text()[3:-1] if line]

    def test_are_not_shown_and_need_no_enter(self):
        local = termios.tcgetattr(self.other_end)[3]
        self.assertEqual(local & (termios.ICANON | termios.ECHO | termios.ISIG), termios.ISIG)

    def test_scroll(self):
        for keys, first in ((DOWN, 2), (PAGE_DOWN, 10), (UP, 9), (PAGE_UP, 1), (END, 23), (HOME, 1), (DOWN * 3, 4)):
            self.press(keys)
            self.wait_for_foot(f"{first}-{first + 7} of {RADIOS}")
            self.assertEqual(self.radios(), list(range(first, first + 8)))

    def test_search(self):
        self.press(b"/345")
        self.wait_for_foot("/345_")
        self.assertEqual(self.radios(), [])
        self.press(b"\x7f" * 3, b"12345.678.00001")
        self.wait_for_foot("/12345.678.00001_")
        self.assertEqual(self.radios(), [1, *range(16, 23)])
        self.press(b"\r")
        self.wait_for_foot("1-8 of 16, /12345.678.00001, by ESN")
        self.press(b"/127.1.0.30\r")
        self.wait_for_foot("1-1 of 1, /127.1.0.30,")
        self.assertEqual(self.radios(), [30])
        self.press(ESCAPE)
        self.wait_for_table()

    def test_sort_and_choose_states(self):
        self.tell((20, 7), 1)
        self.press(b"s")
        lines = self.wait_for(lambda: (t := self.text()) and t[1] == "unreachable 2, registered 28" and t)
        self.wait_for_foot("1-8 of 30, by state")
        self.assertEqual(self.radios(), [7, 20, 1, 2, 3, 4, 5, 6])
        self.press(b"c")
        self.wait_for_foot("1-8 of 30, by last change")
        self.assertEqual(self.radios()[:2], [7, 20])
        self.assertRegex(lines[3], r"unreachable +\d+ s ")
        self.press(b"1")
        self.wait_for_foot("1-2 of 2, by last change")
        self.assertEqual(self.text()[1], "[unreachable 2], registered 28")
        self.press(b"a0")
        self.wait_for_foot("1-8 of 30, by address")

    def test_follow_the_last_change(self):
        self.press(b"f")
        self.wait_for_foot("1-8 of 30, by ESN, following")
        self.tell([25], 2)
        self.wait_for(lambda: 25 in self.radios())
        self.assertTrue(any(line.startswith("> 0000000000000019 ") for line in self.text()))
        self.press(UP)
        self.wait_for_foot("20-27 of 30, by ESN  ")

    def test_help(self):
        self.press(b"?")
        self.wait_for(lambda: any(line.startswith("/  search") for line in self.text()))
        self.press(b"x")
        self.wait_for_table()

    def test_quit(self):
        self.press(b"q")
        self.wait_for_end()

    def test_do_not_quit_while_a_search_is_typed(self):
        self.press(b"/q")
        self.wait_for_foot("/q_")
        self.press(ESCAPE)
        self.wait_for_table()
        self.press(b"q")
        self.wait_for_end()


class OtherStreams(Terminal):
    def test_table_is_shown_where_there_is_no_keyboard(self):
        self.start(stdin=subprocess.DEVNULL)
        self.assertTrue(self.wait_for_table()[-1].endswith("by ESN"))
        self.assertEqual(termios.tcgetattr(self.other_end), self.settings)

    def test_settings_are_as_they_were_when_the_output_is_lost(self):
        screen, other_end = pty.openpty()
        self.start(stdout=other_end)
        os.close(other_end)
        while b"1-20 of 30" not in self.output:
            self.output += os.read(screen, 65536)
        self.assertNotEqual(termios.tcgetattr(self.other_end), self.settings)
        self.output = b""
        os.close(screen)
        self.tell([1])
        self.wait_for(lambda: self.watch.poll() is not None)
        self.assertEqual(self.watch.returncode, 1)
        self.assertEqual(termios.tcgetattr(self.other_end), self.settings)
        self.wait_for(lambda: b"quillmere-watch: standard output: " in self.output)


class JobControl(Terminal):
    """Under a shell that has the terminal."""

    def setUp(self):
        super().setUp()

        def take_terminal():
            fcntl.ioctl(0, termios.TIOCSCTTY, 0)

        self.watch = self.process(["sh", "-mi"], stdin=self.other_end, stdout=self.other_end, stderr=self.other_end,
                                  preexec_fn=take_terminal)
        self.type(f"{watch} --table --server {self.server_name}")
        self.accept()
        self.wait_for_table()

    def type(self, line):
        os.write(self.terminal, line.encode() + b"\n")

    def stop(self):
        self.output = b""
        self.press(CTRL_Z)
        self.wait_for(lambda: b"Stopped" in self.output.partition(NORMAL_SCREEN)[2])
        self.assertEqual(termios.tcgetattr(self.other_end), self.settings)

    def leaves_shell_with(self, code):
        self.output = b""
        self.type("echo ended with $?")
        self.wait_for(lambda: b"ended with " + code in self.output)
        self.assertEqual(termios.tcgetattr(self.other_end), self.settings)

    def test_comes_back_after_a_stop(self):
        for _ in range(2):
            self.stop()
            self.output = b""
            self.type("fg")
            self.wait_for(lambda: FULL_SCREEN in self.output)
            self.wait_for_table()
            self.press(END)
            self.wait_for_foot("23-30 of 30")
            self.press(HOME)
            self.wait_for_table()
        self.output = b""
        self.press(b"q")
        self.wait_for(lambda: self.output.partition(NORMAL_SCREEN)[2].count(b"registered") == RADIOS)
        self.leaves_shell_with(b"0")

    def test_leaves_the_terminal_alone_in_the_background(self):
        self.stop()
        self.output = b""
        self.type("bg")
        self.server.close()
        self.accept()  # it goes on: it has come back
        self.tell([5], 1)
        self.leaves_shell_with(b"0")
        self.type("fg")
        self.wait_for(lambda: FULL_SCREEN in self.output and self.text() and self.text()[1].startswith("unreachable 1"))
        background = self.output.partition(FULL_SCREEN)[0]
        self.assertIn(b"fg\r\n", background)
        self.assertNotIn(b"\x1b", background)
        self.press(b"q")
        self.wait_for(lambda: NORMAL_SCREEN in self.output)
        self.leaves_shell_with(b"0")

    def test_ends_while_stopped_when_asked_to(self):
        tool = os.pidfd_open(os.tcgetpgrp(self.terminal))
        self.addCleanup(os.close, tool)
        self.stop()
        self.type("kill %1; kill -CONT %1")
        self.wait_for(lambda: self.output.partition(NORMAL_SCREEN)[2].count(b"registered") == RADIOS)
        self.assertTrue(select.select([tool], [], [], PATIENCE)[0])
        self.type("wait %1")
        self.leaves_shell_with(b"0")

    def test_does_not_end_with_the_settings_lost(self):
        self.press(CTRL_BACKSLASH, END)
        self.wait_for_foot("23-30 of 30")

    def test_ends_at_ctrl_c(self):
        self.output = b""
        self.press(CTRL_C)
        self.wait_for(lambda: self.output.partition(NORMAL_SCREEN)[2].count(b"registered") == RADIOS)
        self.leaves_shell_with(b"0")


if __name__ == "__main__":
    watch = sys.argv.pop(1)
    unittest.main(verbosity=2)
