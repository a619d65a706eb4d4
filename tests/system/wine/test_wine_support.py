#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""Tests of what the Windows system tests stand on: reading event records and executables, a Wine of one's own."""

import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import unittest

import peinfo
from wineprefix import Record, WinePrefix, parse_records

HERE = pathlib.Path(__file__).parent

# Recorded from Wine 8.0: two threads at once, and a line of another kind between.
TWO_RECORDS = r"""
0128:fixme:advapi:RegisterEventSourceW ((null),L"Quill Mere"): stub
0124:fixme:advapi:RegisterEventSourceW ((null),L"Toy \"Svc\""): stub
0128:fixme:advapi:ReportEventW (00000000CAFE4242,0x0002,0x2345,0xc0000001,0000000000000000,0x0001,0x00000003,000000000181FC88,000000000181FD00): stub
0124:fixme:advapi:ReportEventW (00000000CAFE4242,0x0000,0x0000,0x00000000,0000000000000000,0x0001,0x00000000,000000000181FC88,0000000000000000): stub
00e4:trace:eventlog:ServiceMain starting Event Log Service
0128:warn:eventlog:ReportEventW L"quote \" backslash \\ tab \t e-acute \00e9 face \d83d\de00 end"
0124:trace:eventlog:ReportEventW L"cut"...
0128:fixme:advapi:DeregisterEventSource (00000000CAFE4242) stub
"""

RESOURCES = """
LANGUAGE 9, 1
1 11 "messages.bin"
1 VERSIONINFO
FILEVERSION 1,2,3,4
PRODUCTVERSION 5,6,7,8
BEGIN
END
"""


class EventRecords(unittest.TestCase):
    def test_are_put_together_by_thread_and_unescaped(self):
        text = 'quote " backslash \\ tab \t e-acute \u00e9 face \U0001f600 end'
        self.assertEqual(
            parse_records(TWO_RECORDS),
            [
                Record("Quill Mere", "warning", 0xC0000001, 0x2345, 3, text, False),
                Record('Toy "Svc"', "success", 0, 0, 0, "cut", True),
            ],
        )

    def test_of_other_kinds_are_no_records(self):
        self.assertEqual(parse_records("00e4:trace:eventlog:ServiceMain starting Event Log Service\n\nhello\n"), [])


class Executable(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        (self.folder / "main.c").write_text("int main(void) { return 0; }\n")
        (self.folder / "it.rc").write_text(RESOURCES)
        self.table = bytes(range(16)) + (16).to_bytes(2, "little") + bytes(14)
        (self.folder / "messages.bin").write_bytes(self.table)
        self.tool("windres", "-O", "coff", "it.rc", "it.o")

    def tool(self, name, *arguments):
        subprocess.run(["x86_64-w64-mingw32-" + name, *arguments], cwd=self.folder, check=True)

    def link(self, *arguments):
        self.tool("gcc-posix", "main.c", "it.o", "-o", "it.exe", *arguments)
        return self.folder / "it.exe"

    def test_gives_its_resources(self):
        executable = self.link()
        self.assertEqual(peinfo.message_table(executable), self.table)
        self.assertEqual(peinfo.resource_ids(executable), [(11, 1, 1033), (16, 1, 1033)])
        self.assertEqual(peinfo.version(executable), ((1, 2, 3, 4), (5, 6, 7, 8)))

    def test_gives_its_imports(self):
        self.assertEqual(peinfo.imported_libraries(self.link()), ["kernel32.dll", "msvcrt.dll"])
        self.assertIn("user32.dll", peinfo.imported_libraries(self.link("-Wl,-u,MessageBoxA", "-luser32")))

    def test_tells_what_protects_it(self):
        on = ["-Wl,--dynamicbase,--high-entropy-va,--nxcompat"]
        off = ["-Wl,--disable-dynamicbase,--disable-high-entropy-va,--disable-nxcompat,--disable-reloc-section"]
        self.assertEqual(peinfo.hardening(self.link(*on)), {"HIGH_ENTROPY_VA", "DYNAMIC_BASE", "NX_COMPAT", "RELOC"})
        self.assertEqual(peinfo.hardening(self.link(*off)), set())

    def test_tells_whether_it_holds_the_time_of_linking(self):
        self.assertFalse(peinfo.has_timestamp(self.link("-Wl,--no-insert-timestamp")))
        self.assertTrue(peinfo.has_timestamp(self.link("-Wl,--insert-timestamp")))


class Prefix(unittest.TestCase):
    def test_ends_its_own_processes_and_no_others(self):
        with WinePrefix() as stays:
            sleeper = stays.start("cmd.exe", "/c", "ping -n 600 127.0.0.1", stdout=subprocess.DEVNULL)
            with WinePrefix() as goes:
                folder = goes.prefix.parent
                # Ended while it starts: it must not bring the Wine up again.
                inner = goes.start("cmd.exe", "/c", "ping -n 600 127.0.0.1", stdout=subprocess.DEVNULL)
            self.assertIsNotNone(inner.poll())
            self.assertFalse(folder.exists())
            self.assertIsNone(sleeper.poll())
            self.assertEqual(stays.run("cmd.exe", "/c", "echo here").stdout.strip(), b"here")
        self.assertIsNotNone(sleeper.poll())

    def test_goes_when_its_program_is_ended(self):
        command = [sys.executable, HERE / "wineprefix.py", "with", "sh", "-c", 'echo "$WINEPREFIX"; exec sleep 600']
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as program:
            prefix = pathlib.Path(program.stdout.readline().strip())
            self.assertTrue(prefix.is_dir())
            program.send_signal(signal.SIGTERM)
            self.assertEqual(program.wait(60), 128 + signal.SIGTERM)
        self.assertFalse(prefix.exists())

    def test_runs_programs_for_commands_of_this_machine(self):
        run = f'"{sys.executable}" "{HERE / "wineprefix.py"}" run cmd.exe /c "echo out& echo err>&2& exit 7"'
        command = [sys.executable, HERE / "wineprefix.py", "with", "sh", "-c", run]
        answer = subprocess.run(command, capture_output=True, text=True, timeout=300)
        self.assertEqual((answer.stdout.strip(), answer.stderr.strip(), answer.returncode), ("out", "err", 7))


if __name__ == "__main__":
    os.chdir(HERE)
    unittest.main(verbosity=2)
