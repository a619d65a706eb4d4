#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""Does what docs/windows.md says, as it stands there, at a command prompt in one Wine.

A command of the guide that nothing here runs is a failure. QUILLMERE_BIN and QUILLMERE_TEST_BIN are as test_installer.py
tells; icacls, sc, schtasks and wevtutil, which Wine only pretends to have, are recorded. What needs PowerShell, which Wine has not got,
is left out by name.
"""

import os
import pathlib
import shlex
import shutil
import socket
import subprocess
import sys
import unittest
import urllib.request

from server import RUNNING, STOPPED, Radio, Server, free_port
from wineprefix import WinePrefix

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "guide"))

from guide import Guide  # noqa: E402

BIN = pathlib.Path(os.environ["QUILLMERE_BIN"])
TEST_BIN = pathlib.Path(os.environ["QUILLMERE_TEST_BIN"])
EXECUTABLES = {"quillmere": BIN / "quillmere.exe", "servicecontrol": TEST_BIN / "servicecontrol.exe"}
DOCUMENT = HERE.parent.parent.parent / "docs" / "windows.md"
DOWNLOADS = r"C:\downloads"
FOLDER = r"C:\Quillmere"
RECORDED = ("icacls.exe", "netsh.exe", "sc.exe", "schtasks.exe", "wevtutil.exe")
PROGRAMS = {"icacls", "quillmere-monitor.exe", "quillmere-setup.exe", "quillmere.exe", "sc.exe", "schtasks", "sqlite3", "uninstall.exe",
            "wevtutil"}
POWERSHELL = ("New-NetFirewallRule", "Get-WinEvent", "New-ScheduledTaskAction")


class Guided(unittest.TestCase):
    """From the download to the last trace."""

    def setUp(self):
        self.wine = self.enterContext(WinePrefix(replaced=RECORDED))
        self.guide = Guide(DOCUMENT, PROGRAMS)
        self.server = Server(self.wine, EXECUTABLES, folder=DOWNLOADS)
        self.server.path = FOLDER + r"\quillmere.exe"
        self.addCleanup(self.server.remove)
        shutil.copyfile(BIN.parent / "quillmere-setup.exe", self.wine.unix_path(DOWNLOADS + r"\quillmere-setup.exe"))
        for name in RECORDED:
            shutil.copyfile(TEST_BIN / "commandrecorder.exe", self.wine.unix_path(rf"C:\windows\system32\{name}"))

    def prompt(self, text, folder=DOWNLOADS, answer=""):
        """Types the lines at a command prompt in that folder; gives what it printed. Each has to end with 0."""
        script = self.wine.unix_path(r"C:\guide.bat")
        checked = [f"{line}\r\nif not %errorlevel%==0 exit /b 99\r\n" for line in text.splitlines()]
        script.write_text("@echo off\r\n" + "".join(checked), newline="")
        typed = self.wine.unix_path(r"C:\typed.txt")
        typed.write_text(answer)
        with open(typed, "rb") as stdin:
            done = self.wine.run("cmd.exe", "/d", "/c", r"C:\guide.bat", cwd=self.wine.unix_path(folder), stdin=stdin)
        self.assertEqual(done.returncode, 0, f"{text}\n{done.stdout.decode('latin-1')}{done.stderr.decode('latin-1')}")
        return done.stdout.decode("latin-1").replace("\r\n", "\n")

    def types(self, *begins, **how):
        return self.prompt(self.guide.block(*begins), **how)

    def says(self, command, **how):
        return self.prompt(self.guide.span(command), **how)

    def recorded(self, text):
        """A block whose programs are recorded: each has to have got its line."""
        record = self.wine.unix_path(r"C:\recorded-commands.txt")
        record.unlink(missing_ok=True)
        self.prompt(text)
        lines = [line for line in text.splitlines() if line.split()[0] in ("icacls", "sc.exe", "schtasks", "wevtutil")]
        self.assertTrue(lines)
        self.assertEqual([shlex.split(line, posix=False)[1:] for line in record.read_text().splitlines()],
                         [shlex.split(line, posix=False)[1:] for line in lines])

    def is_in(self, state):
        self.server.wait_for_state(state)

    def test_guide(self):
        self.by_the_installer()
        self.by_hand()
        self.accounts()
        self.event_log()
        self.every_day()
        self.monitor()
        self.upgrade()
        self.uninstall()
        left = [block for block in self.guide.left() if not any(name in block for name in POWERSHELL)]
        self.assertEqual(left, [])
        print("not run, for want of PowerShell:", len(self.guide.left()), "blocks")

    def by_the_installer(self):
        self.server.configure()
        command = self.guide.block("quillmere-setup.exe /S")
        self.guide.span("quillmere-setup.exe")
        for removal, keeps in (("uninstall.exe /S", True), ("uninstall.exe /S /DATA", False)):
            self.prompt(command)
            self.is_in(RUNNING)
            # From another folder: a prompt that is in it would keep it there.
            self.prompt(FOLDER + "\\" + self.guide.span(removal))
            self.wine.wait_for(lambda: not self.wine.unix_path(FOLDER).exists(), "the end of the uninstaller")
            self.assertEqual(self.server.database.exists(), keeps)
        self.server.configure()

    def by_hand(self):
        printed = self.types("mkdir C:\\Quillmere", "C:\\Quillmere\\quillmere.exe -install")
        self.assertIn("is installed and running", printed)
        self.is_in(RUNNING)
        self.server.wait_until_a_radio_registers()
        self.recorded(self.guide.block("icacls C:\\Quillmere"))
        self.recorded(self.guide.block("sc.exe config"))

    def accounts(self):
        self.prompt(rf"{FOLDER}\quillmere.exe -terminate")
        self.is_in(STOPPED)
        lines = self.guide.block(r"C:\Quillmere\quillmere.exe -install someone PASSWORD").splitlines()
        for line, account in zip(lines, (r".\someone", r"MYDOMAIN\someone", r"NT AUTHORITY\LocalService"), strict=True):
            self.prompt(rf"{FOLDER}\quillmere.exe -uninstall" + "\n" + line)
            self.assertEqual(self.server.config()["account"], account)
        self.prompt(rf"{FOLDER}\quillmere.exe -uninstall" + "\n" + rf"{FOLDER}\quillmere.exe -install")
        kept = self.wine.unix_path(r"C:\kept")
        shutil.move(self.server.data, kept)
        self.recorded(self.guide.block(r'mkdir "C:\ProgramData\Brackwater\Quill Mere"'))
        shutil.copytree(kept, self.server.data, dirs_exist_ok=True)
        self.recorded(self.guide.block(r'icacls "C:\ProgramData\Brackwater" /inheritance:r'))

    def event_log(self):
        self.recorded(self.guide.block("wevtutil qe Application"))
        self.recorded(self.guide.span("wevtutil sl Application /ms:268435456"))

    def every_day(self):
        self.says("quillmere.exe", folder=FOLDER)
        self.is_in(RUNNING)
        self.assertIn("is installed and running", self.says("quillmere.exe -version", folder=FOLDER))
        self.assertIn("-t(erminate)", self.says("quillmere.exe -help", folder=FOLDER))
        self.says("quillmere.exe -terminate", folder=FOLDER)
        self.is_in(STOPPED)
        self.recorded(self.guide.span('sc.exe start "Quill Mere"'))
        foreground = self.wine.start(*self.guide.span("quillmere.exe -exec").split(), cwd=self.wine.unix_path(FOLDER))
        self.server.wait_until_a_radio_registers()
        foreground.kill()
        foreground.wait(60)
        # No sqlite3 for Windows here: this machine's makes the copy.
        subprocess.run(shlex.split(self.guide.span('sqlite3 qmr.db ".backup copy.db"')), cwd=self.server.data, check=True)
        self.assertTrue((self.server.data / "copy.db").exists())

    def monitor(self):
        shutil.copyfile(BIN / "quillmere-monitor.exe", self.wine.unix_path(FOLDER + r"\quillmere-monitor.exe"))
        # At a port of its own, which the guide's may not be on this machine.
        address = f"127.0.0.1:{free_port(socket.SOCK_STREAM)}"
        monitor = self.wine.start(self.guide.span("quillmere-monitor.exe"), "--listen", address, cwd=self.wine.unix_path(FOLDER))
        self.wine.wait_for(lambda: self.is_served(address), "the page")
        monitor.kill()
        monitor.wait(60)
        self.recorded(self.guide.block('schtasks /run /tn "Quill Mere monitor"'))
        self.recorded(self.guide.span('schtasks /delete /tn "Quill Mere monitor" /f'))

    @staticmethod
    def is_served(address):
        try:
            with urllib.request.urlopen(f"http://{address}/", timeout=20) as answer:
                return answer.status == 200
        except OSError:
            return False

    def upgrade(self):
        self.server.start()
        self.types(r"copy C:\Quillmere\quillmere.exe C:\Quillmere\quillmere-old.exe")
        self.is_in(RUNNING)
        rows = subprocess.run(["sqlite3", "file:qmr.db?mode=ro", "SELECT hex(esn) FROM subscribers"], cwd=self.server.data,
                              check=True, capture_output=True, text=True)
        self.assertEqual(rows.stdout.strip(), Radio.ESN.hex().upper())
        for name in ("quillmere-old.exe", "qmr-old.db"):
            self.assertTrue(self.wine.unix_path(rf"{FOLDER}\{name}").exists())

    def uninstall(self):
        for line in self.guide.block(r"C:\Quillmere\quillmere.exe -uninstall").splitlines():
            self.prompt(line, answer="y")
        self.assertIn("error", self.server.status())
        self.assertFalse(self.wine.unix_path(FOLDER).exists())
        self.assertFalse(self.server.data.parent.exists())


if __name__ == "__main__":
    unittest.main()
