#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""The service under Wine's service control manager, driven by its own command line.

QUILLMERE_BIN names the folder of the executables, QUILLMERE_TEST_BIN that of servicecontrol.exe.
"""

import contextlib
import os
import pathlib
import socket
import sqlite3
import subprocess
import tempfile
import unittest

from server import DATA, EVENT_SOURCE, ID, NAME, RUNNING, START_PENDING, STOPPED, ForegroundRun, Radio, Server
from wineprefix import WinePrefix

EXECUTABLES = {
    "quillmere": pathlib.Path(os.environ["QUILLMERE_BIN"]) / "quillmere.exe",
    "servicecontrol": pathlib.Path(os.environ["QUILLMERE_TEST_BIN"]) / "servicecontrol.exe",
}

DESCRIPTION = (
    "Quill Mere 1.38.3 Build 27Maintains a list of radios on the P25 system and their IP addresses"
)

NOT_RUNNING = 1062
NOT_ACCEPTED = 1052
DOES_NOT_EXIST = 1060

OWN_PROCESS = 0x10
INTERACTIVE = 0x110
MANUAL_START = 3
ACCEPT_STOP = 1

wine = None


def setUpModule():
    global wine
    wine = unittest.enterModuleContext(WinePrefix())


class ServiceTest(unittest.TestCase):
    def setUp(self):
        self.server = Server(wine, EXECUTABLES)
        self.server.configure()
        self.server.forget_records()
        self.addCleanup(lambda: self.server.remove())

    def assert_idle(self, *texts, seconds=60):
        """The service counts as running, but these are its only records; and it can still be stopped."""
        self.server.wait_for_record(texts[-1], seconds)
        self.server.wait_for_state(RUNNING)
        self.assertEqual([record.text for record in self.server.records()], list(texts))
        self.assertEqual(self.server.run("-terminate"), (0, "", ""))
        self.server.wait_for_record("Service stopped")


class Installation(ServiceTest):
    def installed_text(self):
        return f"The service {NAME} has been installed under: {self.server.path}\n"

    def test_for_local_system(self):
        self.assertEqual(self.server.run("-install"), (0, self.installed_text(), ""))
        self.assertEqual(
            self.server.config(),
            {
                "type": INTERACTIVE,
                "start": MANUAL_START,
                "errorControl": 1,
                "path": self.server.path,
                "group": "",
                "account": "LocalSystem",
                "displayName": NAME,
                "description": DESCRIPTION,
            },
        )
        key = rf"HKLM\SYSTEM\CurrentControlSet\Services\{NAME}"
        self.assertEqual(self.server.registry_value(key, "ImagePath")[1], self.server.path)
        # Wine's service manager answers before it has written what it was told.
        stored = wine.wait_for(lambda: self.server.registry_value(key, "Description"), "the description")
        self.assertEqual(stored, ("REG_SZ", DESCRIPTION))

    def test_twice_changes_nothing(self):
        self.server.run("-install")
        before = self.server.config()
        for option in ("-install", "-i"):
            self.assertEqual(
                self.server.run(option, "other", "secret"), (0, "", f"The service {NAME} is already installed\n")
            )
        self.assertEqual(self.server.config(), before)

    def test_for_an_account(self):
        rows = [
            (["someone", "secret"], r".\someone", OWN_PROCESS),
            ([r"MYDOMAIN\someone", "secret"], r"MYDOMAIN\someone", OWN_PROCESS),
            (["LocalSystem", "secret"], "LocalSystem", INTERACTIVE),
        ]
        for arguments, account, kind in rows:
            with self.subTest(arguments[0]):
                self.assertEqual(self.server.run("-i", *arguments), (0, self.installed_text(), ""))
                config = self.server.config()
                self.assertEqual((config["account"], config["type"]), (account, kind))
                self.assertEqual(self.server.run("-u").exit_code, 0)

    def test_names_the_executable_as_message_file_until_it_is_removed(self):
        self.assertIsNone(self.server.registry_value(EVENT_SOURCE, "EventMessageFile"))
        self.server.run("-install")
        self.assertEqual(
            self.server.registry_value(EVENT_SOURCE, "EventMessageFile"), ("REG_SZ", self.server.path)
        )
        self.assertEqual(self.server.registry_value(EVENT_SOURCE, "TypesSupported"), ("REG_DWORD", "0x7"))
        self.server.run("-uninstall")
        self.assertIsNone(self.server.registry_value(EVENT_SOURCE, "EventMessageFile"))
        done = wine.run("reg.exe", "query", EVENT_SOURCE.rpartition("\\")[0])
        self.assertNotIn(NAME.encode(), done.stdout)

    def test_that_the_service_manager_refuses(self):
        # Another service is shown under the name already.
        wine.run("sc.exe", "create", "Another", "binpath=", r"C:\another.exe", "displayname=", NAME)
        self.addCleanup(wine.run, "sc.exe", "delete", "Another")
        for option in ("-install", "-i"):
            self.assertEqual(self.server.run(option), (-1, "", f"The service {NAME} could not be installed\n"))
        self.assertEqual(self.server.status(), {"error": DOES_NOT_EXIST})

    def test_removal(self):
        for option in ("-uninstall", "-u"):
            self.assertEqual(self.server.run(option), (0, "", f"The service {NAME} is not installed\n"))
            self.server.run("-install")
            self.assertEqual(
                self.server.run(option), (0, f"The service {NAME} has been uninstalled.\n", "")
            )
            self.assertEqual(self.server.status(), {"error": DOES_NOT_EXIST})


class CommandLine(ServiceTest):
    def version(self, installed, running):
        return (0, f"The service\n\t{NAME}\n\t{self.server.path}\n\nis {installed} and {running}\n\n", "")

    def test_version_in_each_state(self):
        self.assertEqual(self.server.run("-version"), self.version("not installed", "not running"))
        self.server.run("-install")
        self.assertEqual(self.server.run("-v"), self.version("installed", "not running"))
        self.server.start()
        self.assertEqual(self.server.run("-version"), self.version("installed", "running"))

    def test_help(self):
        usage = (
            f"\n{self.server.path} -[i|u|e|t|p|r|c|v|h]\n"
            "\t-i(nstall) [account] [password]\t: Install the service, optionally using given account and password\n"
            "\t-u(ninstall)\t: Uninstall the service.\n"
            "\t-e(xec)\t\t: Run as a regular application. Useful for debugging.\n"
            "\t-t(erminate)\t: Stop the service.\n"
            "\t-p(ause)\t: Pause the service.\n"
            "\t-r(esume)\t: Resume a paused service.\n"
            "\t-c(ommand) num\t: Send command code num to the service.\n"
            "\t-v(ersion)\t: Print version and status information.\n"
            "\t-h(elp)   \t: Show this help\n"
            "\tNo arguments\t: Start the service.\n"
        )
        for option in ("-help", "-h"):
            self.assertEqual(self.server.run(option), (0, usage, ""))

    def test_start_without_a_service_fails_and_is_not_logged(self):
        for arguments in ([], ["-I"]):
            with self.subTest(arguments):
                self.assertEqual(
                    self.server.run(*arguments), (-4, "", f"The service {NAME} could not start\n")
                )
        done = wine.run(self.server.path, events=True)
        self.assertNotIn(b"ReportEvent", done.stderr)

    def test_exit_codes_have_all_their_bits(self):
        done = wine.run("cmd.exe", "/v:on", "/c", f"{self.server.path} & echo !errorlevel!")
        self.assertEqual(done.stdout.strip(), b"-4")

    def test_terminate_without_a_service(self):
        for option in ("-terminate", "-t"):
            answer = self.server.run(option)
            self.assertEqual((answer.exit_code, answer.out), (0, ""))
            self.assertRegex(answer.err, r"\AThe service could not be stopped\. \([^\n]+\)\n\Z")

    def test_terminate_of_a_stopped_service(self):
        self.server.run("-install")
        answer = self.server.run("-terminate")
        self.assertEqual((answer.exit_code, answer.out), (0, ""))
        self.assertRegex(
            answer.err, r"\Astopping \([^\n]+\)\nThe service could not be stopped\. \([^\n]+\)\n\Z"
        )

    def test_controls_without_a_service_say_nothing(self):
        for arguments in (["-p"], ["-pause"], ["-r"], ["-resume"], ["-c"], ["-command", "72"]):
            with self.subTest(arguments):
                self.assertEqual(self.server.run(*arguments), (0, "", ""))


class Running(ServiceTest):
    def setUp(self):
        super().setUp()
        self.server.run("-install")

    def test_start_from_the_console_with_parameters(self):
        self.assertEqual(self.server.start_from_console("first", "second with spaces"), (0, "", ""))
        status = self.server.status()
        self.assertEqual(
            status,
            {
                "type": INTERACTIVE,
                "state": RUNNING,
                "accepted": ACCEPT_STOP,
                "exitCode": 0,
                "checkPoint": 0,
                "waitHint": 0,
            },
        )

    def test_start_of_a_running_service_fails(self):
        self.server.start()
        self.assertEqual(self.server.run(), (-4, "", f"The service {NAME} could not start\n"))
        self.assertEqual(self.server.status()["state"], RUNNING)

    def test_writes_its_records_with_type_category_and_identifier(self):
        self.server.start()
        self.server.wait_for_record("Service started")
        self.assertEqual(self.server.run("-terminate"), (0, "", ""))
        self.server.wait_for_record("Service stopped")
        started = (
            "Quill Mere 1.38.3.27\n Service started with the following configuration:\n"
            "Minimum Discovery Period: 30 (seconds)\n"
            f"Radio Registration Port: {self.server.udp_port} (UDP)\n"
            f"Application Port: {self.server.tcp_port} (TCP)\n"
            f"Config Path: {DATA}\n"
        )
        self.assertEqual(
            [(r.source, r.type, r.id, r.category, r.data_size, r.text) for r in self.server.records()],
            [
                (NAME, "warning", ID, 0, 0, "Unable to update database.  Replacing database..."),
                (NAME, "success", ID, 0, 0, started),
                (NAME, "success", ID, 0, 0, "Service stopped"),
            ],
        )

    def test_answers_registrations_and_keeps_them_over_a_restart(self):
        self.server.start()
        text = "Radio 0011AABB22CC33DD with SUID {WACN: 0x12345, System: 0x678, Unit: 0x9ABCDD} registered with address 127.0.0.2"
        with Radio(self.server.udp_port) as radio:
            self.assertTrue(radio.registers())
            record = self.server.wait_for_record(text)
            self.assertEqual((record.type, record.id, record.category), ("information", ID, 0))
            self.assertEqual(self.server.run("-terminate"), (0, "", ""))
            self.server.wait_for_state(STOPPED)
            with contextlib.closing(sqlite3.connect(self.server.database)) as database:
                rows = database.execute("SELECT hex(esn), hex(suid), ip_address, availability FROM subscribers")
                self.assertEqual(
                    rows.fetchall(), [("0011AABB22CC33DD", "123456789ABCDD", (127 << 24) + 2, 3)]
                )
            self.server.forget_records()
            self.server.start()
            # The application that connects is told of the radio that was stored.
            with socket.create_connection(("127.0.0.1", self.server.tcp_port), 30) as application:
                self.assertIn(Radio.ESN, application.recv(100))
            self.assertTrue(radio.registers())

    def test_refuses_what_it_does_not_accept(self):
        self.server.start()
        for option, code in (("-pause", 2), ("-p", 2), ("-resume", 3), ("-r", 3)):
            with self.subTest(option):
                self.assertEqual(self.server.run(option), (0, "", ""))
                self.assertEqual(self.server.control(code), {"error": NOT_ACCEPTED})
                self.assertEqual(self.server.status()["state"], RUNNING)

    def test_takes_user_codes(self):
        self.assertEqual(self.server.control(200), {"error": NOT_RUNNING})
        self.server.start()
        for code in ("0", "127", "128", "-1", "nonsense"):
            with self.subTest(code):
                self.assertEqual(self.server.run("-command", code), (0, "", ""))
        for control in (128, 200, 255):
            with self.subTest(control):
                answer = self.server.control(control)
                self.assertEqual((answer.get("state"), answer.get("accepted")), (RUNNING, ACCEPT_STOP))

    def test_answers_an_interrogation(self):
        self.server.start()
        answer = self.server.control(4)
        self.assertEqual((answer.get("state"), answer.get("accepted")), (RUNNING, ACCEPT_STOP))

    def test_stops_within_the_wait_and_starts_again(self):
        for _ in range(2):
            self.server.start()
            # No warning: the state was seen as stopped before the wait was over.
            self.assertEqual(self.server.run("-terminate"), (0, "", ""))
            self.assertEqual(self.server.status()["state"], STOPPED)
            self.assertEqual(self.server.status()["exitCode"], 0)


    def test_removed_while_it_runs_it_goes_on_until_it_is_stopped(self):
        self.server.start()
        self.assertEqual(self.server.run("-u"), (0, f"The service {NAME} has been uninstalled.\n", ""))
        with Radio(self.server.udp_port) as radio:
            self.assertTrue(radio.registers())
        self.assertEqual(self.server.run("-u"), (-1, "", f"The service {NAME} could not be uninstalled\n"))
        self.assertEqual(self.server.run("-terminate"), (0, "", ""))
        self.server.wait_for_record("Service stopped")
        wine.wait_for(lambda: self.server.status() == {"error": DOES_NOT_EXIST}, "the service is gone")


class Adversity(ServiceTest):
    def setUp(self):
        super().setUp()
        self.server.run("-install")

    def test_ports_taken_by_another_process(self):
        with contextlib.ExitStack() as stack:
            radio_side = stack.enter_context(socket.socket(socket.AF_INET6, socket.SOCK_DGRAM))
            radio_side.bind(("::", self.server.udp_port))
            application_side = stack.enter_context(socket.socket())
            application_side.bind(("0.0.0.0", self.server.tcp_port))
            application_side.listen()
            self.server.start()
            self.server.wait_for_record("Service started")
        self.assertEqual(
            [(r.type, r.id, r.text) for r in self.server.records()[1:3]],
            [
                ("error", ID, "Unable to bind registration socket"),
                ("error", ID, "Failed to listen for application connections"),
            ],
        )
        self.assertEqual(self.server.run("-terminate"), (0, "", ""))

    def test_database_locked_by_another_process(self):
        with contextlib.closing(sqlite3.connect(self.server.database, isolation_level=None)) as other:
            other.execute("CREATE TABLE config (database_version INTEGER)")
            other.execute("INSERT INTO config VALUES (3)")
            other.execute("BEGIN EXCLUSIVE")
            self.assertEqual(self.server.run(), (0, "", ""))
            # The start waits for the lock, and what is pending counts as running.
            self.assertEqual(self.server.status()["state"], START_PENDING)
            self.assertIn("is installed and running\n", self.server.run("-version").out)
            self.assert_idle(
                "Unable to update database.  Replacing database...",
                "Database schema: unable to continue",
                seconds=120,  # the start's own patience is 60 s
            )
            record = self.server.records()[1]
            self.assertEqual((record.type, record.id), ("success", 0))
            other.execute("ROLLBACK")
            self.assertEqual(other.execute("SELECT * FROM config").fetchall(), [(3,)])

    @contextlib.contextmanager
    def read_only(self, folder):
        """Nobody can write there, root included, who heeds no mode bits."""
        if os.geteuid() != 0:
            folder.chmod(0o555)
            try:
                yield
            finally:
                folder.chmod(0o755)
            return
        mount = ["mount", "--bind", "-o", "ro", folder, folder]
        if subprocess.run(mount, capture_output=True, check=False).returncode != 0:
            self.assertNotEqual(os.environ.get("CI"), "true", "CI must be able to mount a folder read-only")
            self.skipTest("this machine cannot mount a folder read-only")
        try:
            yield
        finally:
            subprocess.run(["umount", "--lazy", folder], check=True)

    def test_read_only_data_folder(self):
        self.server.data.joinpath("qmr.cfg").unlink()
        with self.read_only(self.server.data):
            self.server.start()
            self.assert_idle(f"Failed to open database ('{DATA}\\qmr.db')")
            record = self.server.records()[0]
            self.assertEqual((record.type, record.id), ("error", ID))

    def test_data_folder_that_cannot_be_made(self):
        self.server.data.joinpath("qmr.cfg").unlink()
        self.server.data.rmdir()
        self.server.data.touch()
        self.server.start()
        self.assert_idle(f"Failed to open database ('{DATA}\\qmr.db')")


class Places(ServiceTest):
    """Installed and run from folders of all kinds; what a page of characters lacks is altered on the console only."""

    def lives_in(self, folder, shown=None):
        path = self.server.copy_to(folder)
        answer = self.server.run("-install")
        shown = shown or path
        self.assertEqual(answer, (0, f"The service {NAME} has been installed under: {shown}\n", ""))
        self.assertEqual(self.server.config()["path"], path)
        self.server.start()
        self.server.wait_for_record("Service started")
        self.assertEqual(self.server.run("-terminate"), (0, "", ""))
        return path

    def test_folder_with_spaces(self):
        self.lives_in(r"C:\Program Files\Quill Mere")

    def test_folder_beyond_the_ansi_code_page(self):
        self.lives_in("C:\\Gr\u00fcn \u0416\u65e5", "C:\\Gr\u00fcn ??\\quillmere.exe")

    def test_path_of_259_characters(self):
        start, end = "C:\\deep", "\\quillmere.exe"
        room = 259 - len(start) - len(end)
        folder = start + "\\" + "d" * (room // 2) + "\\" + "e" * (room - room // 2 - 2)
        self.assertEqual(len(self.lives_in(folder)), 259)

    def test_arguments_beyond_the_ansi_code_page(self):
        self.assertEqual(self.server.run("-i", "\u0416\u65e5", "\u0416").exit_code, 0)
        self.assertEqual(self.server.config()["account"], ".\\??")
        self.server.run("-u")
        self.server.run("-i")
        self.assertEqual(self.server.start_from_console("\u0416\u65e5", "\U0001f600"), (0, "", ""))
        self.assertEqual(self.server.run("-\u0416"), (-4, "", f"The service {NAME} could not start\n"))


class Foreground(ServiceTest):
    def setUp(self):
        super().setUp()
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def test_serves_and_prints_nothing_of_the_log(self):
        with ForegroundRun(self.server, self.folder) as run, Radio(self.server.udp_port) as radio:
            started = run.wait_for_record("Service started")
            self.assertEqual((started.source, started.type, started.id), (NAME, "success", ID))
            self.assertTrue(radio.registers())
            run.wait_for_record("registered with address 127.0.0.2")
            self.assertTrue(run.running())
            self.assertEqual(run.output(), b"")
            # It is no service: the service manager knows nothing of it.
            self.assertEqual(self.server.status(), {"error": DOES_NOT_EXIST})


if __name__ == "__main__":
    unittest.main(verbosity=2)
