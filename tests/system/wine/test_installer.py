#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""The installer, as a script of an administrator's drives it, in one Wine.

QUILLMERE_BIN names the folder of the executables, beside which the installer lies; QUILLMERE_TEST_BIN that of
servicecontrol.exe and of commandrecorder.exe, which takes the place of the system's programs that Wine only pretends to
have.
"""

import os
import pathlib
import shutil
import socket
import sqlite3
import unittest

from server import DATA, RUNNING, STOPPED, Radio, Server, free_port
from wineprefix import WinePrefix

BIN = pathlib.Path(os.environ["QUILLMERE_BIN"])
TEST_BIN = pathlib.Path(os.environ["QUILLMERE_TEST_BIN"])
INSTALLER = BIN.parent / "quillmere-setup.exe"
EXECUTABLES = {"quillmere": BIN / "quillmere.exe", "servicecontrol": TEST_BIN / "servicecontrol.exe"}
FOLDER = r"C:\Quillmere"
RECORDED = ("netsh.exe", "icacls.exe", "sc.exe")
UNINSTALL_KEY = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall\Quillmere"
SERVICE_KEY = r"HKLM\SYSTEM\CurrentControlSet\Services\Quill Mere"
DOES_NOT_EXIST = 1060

# By their full paths: the installer's own folder, a folder of downloads perhaps, must not be searched for them.
SYSTEM = r"C:\windows\system32"
ICACLS = (
    rf'"{SYSTEM}\icacls.exe" "{{}}" /inheritance:r /grant "*S-1-5-32-544:(OI)(CI)F" "*S-1-5-18:(OI)(CI)F" "*S-1-5-32-545:(OI)(CI)RX"'
)
BY_ITSELF = [
    rf'"{SYSTEM}\sc.exe" config "Quill Mere" start= delayed-auto',
    rf'"{SYSTEM}\sc.exe" failure "Quill Mere" reset= 86400 actions= restart/5000/restart/5000/restart/60000',
]
DELETIONS = [rf'"{SYSTEM}\netsh.exe" advfirewall firewall delete rule name="Quill Mere {who}"' for who in ("radios", "applications")]


def rule(who, protocol, networks):
    return [
        rf'"{SYSTEM}\netsh.exe" advfirewall firewall delete rule name="Quill Mere {who}"',
        rf'"{SYSTEM}\netsh.exe" advfirewall firewall add rule name="Quill Mere {who}" dir=in action=allow '
        rf'program="C:\Quillmere\quillmere.exe" protocol={protocol} remoteip="{networks}"',
    ]


class Installer(unittest.TestCase):
    def setUp(self):
        self.wine = self.enterContext(WinePrefix(replaced=RECORDED))
        self.server = Server(self.wine, EXECUTABLES, folder=r"C:\elsewhere")
        self.server.configure()
        self.addCleanup(self.server.remove)
        self.installer = self.wine.unix_path(r"C:\setup.exe")
        shutil.copyfile(INSTALLER, self.installer)
        for name in RECORDED:
            shutil.copyfile(TEST_BIN / "commandrecorder.exe", self.wine.unix_path(rf"C:\windows\system32\{name}"))

    def install(self, *options, code=0):
        done = self.wine.run(r"C:\setup.exe", "/S", *options)
        self.assertEqual(done.returncode, code)
        self.server.path = FOLDER + r"\quillmere.exe"

    def uninstall(self, *options):
        self.assertEqual(self.wine.run(FOLDER + r"\uninstall.exe", "/S", *options).returncode, 0)
        # It goes on from a copy of its own.
        self.wine.wait_for(lambda: not self.wine.unix_path(FOLDER).exists(), "the end of the uninstaller")

    def commands(self):
        """What the system's programs have been asked since the last call."""
        record = self.wine.unix_path(r"C:\recorded-commands.txt")
        lines = record.read_text().splitlines() if record.exists() else []
        record.unlink(missing_ok=True)
        return lines

    def starts(self):
        return len([record for record in self.wine.records() if "Service started" in record.text])

    def rows(self):
        with sqlite3.connect(f"file:{self.server.database}?mode=ro", uri=True) as connection:
            return connection.execute("SELECT hex(esn) FROM subscribers").fetchall()

    def test_install_upgrade_uninstall(self):
        self.install("/RADIOS=10.20.0.0/16,10.21.0.0/16", "/APPLICATIONS=10.30.0.0/24")
        self.server.wait_for_state(RUNNING)
        self.assertEqual(
            self.commands(),
            [ICACLS.format(FOLDER), *BY_ITSELF, *rule("radios", "UDP", "10.20.0.0/16,10.21.0.0/16"),
             *rule("applications", "TCP", "10.30.0.0/24")],
        )
        config = self.server.config()
        self.assertEqual((config["path"], config["account"]), (FOLDER + r"\quillmere.exe", "LocalSystem"))
        names = {path.name for path in self.wine.unix_path(FOLDER).iterdir()}
        papers = {"LICENSE.txt", "README.md", "docs", "examples", "wireshark"}
        self.assertLessEqual({path.name for path in BIN.glob("*.exe")} | papers, names)
        self.assertEqual(self.server.registry_value(UNINSTALL_KEY, "DisplayVersion"), ("REG_SZ", "1.38.3.27"))
        self.assertEqual(self.server.registry_value(UNINSTALL_KEY, "InstallLocation"), ("REG_SZ", FOLDER))
        self.server.wait_until_a_radio_registers()

        # An upgrade starts what ran, and makes no rule that nobody has asked for. A monitor goes on as it is.
        before = self.starts()
        monitor = self.wine.start(FOLDER + r"\quillmere-monitor.exe", "--server", f"127.0.0.1:{self.server.tcp_port}", "--listen",
                                  f"127.0.0.1:{free_port(socket.SOCK_STREAM)}")
        self.server.wait_for_record("Application connected")
        self.install()
        self.assertIsNone(monitor.poll())
        monitor.kill()
        monitor.wait(60)
        self.server.wait_for_state(RUNNING)
        self.assertEqual(self.commands(), [ICACLS.format(FOLDER)])
        self.wine.wait_for(lambda: self.starts() == before + 1, "one start")
        self.assertEqual(self.rows(), [(Radio.ESN.hex().upper(),)])
        self.server.wait_until_a_radio_registers()
        for name in ("quillmere", "quillmere-monitor"):
            self.assertTrue(self.wine.unix_path(rf"{FOLDER}\{name}-old.exe").exists())
            self.assertEqual(self.wine.unix_path(rf"{FOLDER}\{name}.exe").read_bytes(), (BIN / f"{name}.exe").read_bytes())

        # So it does for who wants no first start.
        self.install("/NOSTART")
        self.server.wait_for_state(RUNNING)
        self.wine.wait_for(lambda: self.starts() == before + 2, "another start")
        self.commands()

        # And leaves stopped what was stopped.
        self.server.run("-terminate")
        self.server.wait_for_state(STOPPED)
        self.install()
        self.assertEqual(self.server.status()["state"], STOPPED)
        self.assertEqual(self.starts(), before + 2)
        self.commands()

        self.server.start()
        self.uninstall()
        self.assertEqual(self.server.status(), {"error": DOES_NOT_EXIST})
        self.assertEqual(self.commands(), DELETIONS)
        self.assertIsNone(self.server.registry_value(UNINSTALL_KEY, "DisplayVersion"))
        self.assertEqual(self.rows(), [(Radio.ESN.hex().upper(),)])

        # Asked to, it takes the data too.
        self.install("/NOSTART")
        self.assertEqual(self.server.status()["state"], STOPPED)
        self.assertNotIn("netsh", " ".join(self.commands()))
        self.uninstall("/DATA")
        self.assertFalse(self.server.data.parent.exists())

    def test_folder_of_its_own(self):
        folder = r"C:\Programs\Quillmere"
        self.install(r"/D=" + folder)
        self.server.path = folder + r"\quillmere.exe"
        self.server.wait_for_state(RUNNING)
        self.assertEqual(self.server.config()["path"], folder + r"\quillmere.exe")
        self.assertIn(ICACLS.format(folder), self.commands())
        (self.wine.unix_path(folder) / "ours.txt").write_text("not the installer's")
        # The next goes to the same.
        self.install()
        self.assertFalse(self.wine.unix_path(FOLDER).exists())
        self.server.path = folder + r"\quillmere.exe"
        self.assertEqual(self.wine.run(folder + r"\uninstall.exe", "/S").returncode, 0)
        self.wine.wait_for(
            lambda: [path.name for path in self.wine.unix_path(folder).iterdir()] == ["ours.txt"], "the end of the rest"
        )

    def test_folder_with_a_space_is_refused(self):
        # Without quotation marks, as the option has to be given; the two halves are one to the installer.
        self.install(r"/D=C:\Program", r"Files\Quillmere", code=2)
        self.assertEqual(self.server.status(), {"error": DOES_NOT_EXIST})
        self.assertFalse(self.wine.unix_path(r"C:\Program Files\Quillmere").exists())

    def test_service_of_another_folder_is_left_alone(self):
        elsewhere = r"C:\elsewhere\quillmere.exe"
        self.assertEqual(self.server.run("-install").exit_code, 0)
        self.server.start()
        self.install(code=2)
        self.assertEqual(self.server.config()["path"], elsewhere)
        self.assertEqual(self.server.status()["state"], RUNNING)
        self.assertEqual((self.commands(), self.wine.unix_path(FOLDER).exists()), ([], False))
        # It is taken over where it is, also by a path that somebody has put in quotation marks since.
        self.wine.run("reg.exe", "add", SERVICE_KEY, "/v", "ImagePath", "/d", f'"{elsewhere}"', "/f")
        self.assertEqual(self.server.registry_value(SERVICE_KEY, "ImagePath"), ("REG_SZ", f'"{elsewhere}"'))
        self.install(r"/D=C:\elsewhere")
        self.server.path = elsewhere
        self.server.wait_for_state(RUNNING)
        self.assertEqual(self.starts(), 2)

    def test_program_without_a_service_is_a_first_installation(self):
        self.server.copy_to(FOLDER)
        self.install()
        self.server.wait_for_state(RUNNING)
        self.assertEqual(self.commands(), [ICACLS.format(FOLDER), *BY_ITSELF])

    def test_uninstaller_leaves_the_service_of_another_folder(self):
        self.install()
        self.server.wait_for_state(RUNNING)
        self.server.run("-terminate")
        self.server.wait_for_state(STOPPED)
        self.server.run("-uninstall")
        self.server.path = r"C:\elsewhere\quillmere.exe"
        self.assertEqual(self.server.run("-install").exit_code, 0)
        self.server.start()
        self.uninstall("/DATA")
        self.assertEqual(self.server.status()["state"], RUNNING)
        self.server.wait_until_a_radio_registers()
        self.assertTrue(self.server.database.exists())

    def test_rule_that_the_firewall_refuses(self):
        self.wine.unix_path(r"C:\recorder-exit-code").write_text("1")
        self.install("/RADIOS=nonsense", code=2)
        self.assertEqual(self.server.status()["state"], STOPPED)


if __name__ == "__main__":
    unittest.main()
