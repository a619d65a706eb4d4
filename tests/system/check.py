#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""quillmere-check about accounts and drivers, which takes root: check.py QUILLMERE-CHECK

Exits with 77 where it is not root, with 1 there when CI is true.
"""

import glob
import os
import pathlib
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import unittest

OK, WARNING, CRITICAL, UNKNOWN = 0, 1, 2, 3
OTHER = "nobody"


class Accounts(unittest.TestCase):
    """What the service's account may do, and what who looks may tell."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        os.chmod(folder.name, 0o755)
        self.program = shutil.copy(sys.argv[1], folder.name)  # where any account may run it
        self.data = pathlib.Path(folder.name, "data")
        self.data.mkdir(mode=0o700)
        self.configuration = self.data / "qmr.cfg"
        self.configuration.write_text("minimumDiscoveryPeriod=30\n", encoding="ascii")
        self.database = self.data / "qmr.db"
        for path in (self.data, self.configuration):
            shutil.chown(path, OTHER)

    def check(self, *options, before=(), **how):
        done = subprocess.run([*before, self.program, "--stopped", "--folder", self.data, *options], capture_output=True,
                              check=False, timeout=60, **how)
        return done.returncode, done.stdout.decode().splitlines()[1:]

    def test_the_owner_of_the_folder_may_use_it(self):
        code, lines = self.check()
        self.assertIn(f"ok       account: {OTHER} may use {self.data}", lines)
        self.assertEqual(code, OK)

    def test_account_itself_may_tell(self):
        code, lines = self.check(user=OTHER, group="nogroup", extra_groups=[])
        self.assertIn(f"ok       account: {OTHER} may use {self.data}", lines)
        self.assertEqual(code, OK)

    def test_configuration_that_the_service_cannot_read(self):
        shutil.chown(self.configuration, "root")
        self.configuration.chmod(0o600)
        code, lines = self.check()
        self.assertIn(f"critical account: {OTHER} may not read {self.configuration}", lines)
        self.assertEqual(code, CRITICAL)

    def test_database_that_the_service_cannot_write(self):
        connection = sqlite3.connect(self.database)
        connection.executescript("CREATE TABLE config (database_version); INSERT INTO config VALUES (3);"
                                 "CREATE TABLE subscribers (id);")
        connection.close()
        self.database.chmod(0o644)
        code, lines = self.check()
        self.assertIn(f"critical account: {OTHER} may not write {self.database}", lines)
        self.assertNotIn(f"critical account: {OTHER} may not read {self.database}", lines)
        self.assertEqual(code, CRITICAL)
        self.database.chmod(0o600)
        code, lines = self.check()
        self.assertIn(f"critical account: {OTHER} may not read {self.database}", lines)

    def test_service_of_roots_has_no_more_rights_than_its_files_give(self):
        shutil.chown(self.data, "root")
        self.configuration.chmod(0o600)
        code, lines = self.check()
        self.assertIn(f"critical account: root may not read {self.configuration}", lines)
        self.assertEqual(code, CRITICAL)

    def test_path_of_a_bare_environment(self):
        code, lines = self.check(env={"PATH": "/usr/bin:/bin"})
        self.assertIn(f"ok       account: {OTHER} may use {self.data}", lines)
        self.assertEqual(code, OK)

    def test_ports_that_take_a_right(self):
        self.configuration.write_text("radioRegistrationPort=500\napplicationPort=1024\n", encoding="ascii")
        code, lines = self.check()
        self.assertIn("warning  server: UDP port 500 is below 1024: the service needs a right for it that its unit takes away",
                      lines)
        self.assertNotIn("TCP port 1024 is below", "".join(lines))
        self.assertEqual(code, WARNING)
        self.configuration.write_text("radioRegistrationPort=1024\napplicationPort=1023\n", encoding="ascii")
        self.assertIn("warning  server: TCP port 1023 is below 1024: the service needs a right for it that its unit takes away",
                      self.check()[1])

    def test_full_disk(self):
        mount = "mount -t tmpfs -o size=512k none \"$0\" && exec \"$@\""
        code, lines = self.check(before=["unshare", "--mount", "sh", "-c", mount, self.data])
        self.assertIn(f"critical database: the disk of {self.database} is full", lines)
        self.assertEqual(code, CRITICAL)

    def test_files_that_are_none(self):
        self.configuration.unlink()
        os.mkfifo(self.configuration)
        os.mkfifo(self.database)
        code, lines = self.check()
        self.assertIn(f"critical configuration: {self.configuration} is not a file", lines)
        self.assertIn(f"critical database: {self.database} is not a file", lines)
        self.assertEqual(code, CRITICAL)

    def test_folder_named_by_nothing(self):
        done = subprocess.run([self.program, "--stopped"], capture_output=True, check=False, timeout=60,
                              env={**os.environ, "QUILLMERE_APPDATA": ""})
        self.assertIn("/var/lib/Brackwater/Quill Mere", done.stdout.decode())

    def test_another_account_and_its_folder(self):
        code, lines = self.check("--account", "daemon")
        self.assertIn(f"critical account: daemon may not enter {self.data}", lines)
        self.assertIn(f"critical account: daemon may not write in {self.data}", lines)
        self.assertEqual(code, CRITICAL)

    def test_account_that_is_not_there(self):
        code, lines = self.check("--account", "nobody-of-this-name")
        self.assertIn("critical account: there is no account 'nobody-of-this-name'", lines)
        self.assertEqual(code, CRITICAL)

    def test_who_may_not_look_says_so(self):
        code, lines = self.check(user="daemon", group="daemon", extra_groups=[])
        self.assertEqual(lines, [f"unknown  folder: {self.data}: this user may not look into it"])
        self.assertEqual(code, UNKNOWN)

    def test_files_that_who_looks_may_not_read(self):
        self.data.chmod(0o755)
        self.configuration.chmod(0o600)
        self.database.write_bytes(b"something")
        self.database.chmod(0o600)
        code, lines = self.check(user="daemon", group="daemon", extra_groups=[])
        self.assertIn(f"unknown  account: what {OTHER} may do can be told by root or {OTHER}", lines)
        self.assertIn(f"unknown  configuration: {self.configuration}: Permission denied", lines)
        self.assertIn(f"unknown  database: {self.database}: Permission denied", lines)
        self.assertEqual(code, UNKNOWN)

    def test_folder_that_is_not_there_yet(self):
        shutil.rmtree(self.data)
        code, lines = self.check()
        self.assertIn(f"ok       account: no {self.data} yet: the service makes it", lines)
        self.assertEqual(code, OK)

    def test_service_has_its_folder_below_the_systems(self):
        done = subprocess.run([self.program, "--stopped"], capture_output=True, check=False, timeout=60,
                              env={**os.environ, "QUILLMERE_APPDATA": str(self.data)})
        self.assertIn(f"database: no {self.data}/Brackwater/Quill Mere/qmr.db yet", done.stdout.decode())

    def test_driver_that_is_missing(self):
        drivers = glob.glob("/usr/lib/*/qt6/plugins/sqldrivers") + glob.glob("/usr/lib/qt6/plugins/sqldrivers")
        self.assertTrue(drivers)
        hide = f"mount -t tmpfs none {drivers[0]} && exec \"$@\""
        code, lines = self.check(before=["unshare", "--mount", "sh", "-c", hide, "sh"])
        self.assertIn("critical driver: Qt's driver for SQLite is missing (Debian: libqt6sql6-sqlite)", lines)
        self.assertEqual(code, CRITICAL)


if __name__ == "__main__":
    if os.geteuid() != 0:
        print("SKIPPED: accounts: needs root")
        sys.exit(1 if os.environ.get("CI") == "true" else 77)
    unittest.main(argv=sys.argv[:1])
