#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""The built monitor under Wine, beside the server in the foreground. QUILLMERE_BIN and QUILLMERE_TEST_BIN are as
test_installer.py tells."""

import json
import os
import pathlib
import shutil
import socket
import unittest
import urllib.error
import urllib.request

from server import ForegroundRun, Radio, Server, free_port
from wineprefix import WinePrefix

BIN = pathlib.Path(os.environ["QUILLMERE_BIN"])
TEST_BIN = pathlib.Path(os.environ["QUILLMERE_TEST_BIN"])
EXECUTABLES = {"quillmere": BIN / "quillmere.exe", "servicecontrol": TEST_BIN / "servicecontrol.exe"}


class MonitorTest(unittest.TestCase):
    def setUp(self):
        self.wine = self.enterContext(WinePrefix())
        self.server = Server(self.wine, EXECUTABLES)
        self.server.configure()
        self.folder = self.wine.unix_path(r"C:\quillmere")
        shutil.copyfile(BIN / "quillmere-monitor.exe", self.folder / "quillmere-monitor.exe")
        self.url = f"http://127.0.0.1:{free_port(socket.SOCK_STREAM)}"

    def start(self, *options):
        with open(self.folder / "monitor.log", "wb") as log:
            return self.wine.start(r"C:\quillmere\quillmere-monitor.exe", "--server", f"127.0.0.1:{self.server.tcp_port}",
                                   "--listen", self.url[7:], *options, stdout=log, stderr=log)

    def get(self, path, host=None):
        """Status and text; 0 while nobody listens."""
        request = urllib.request.Request(self.url + path, headers={"Host": host} if host else {})
        try:
            with urllib.request.urlopen(request, timeout=20) as answer:
                return answer.status, answer.read().decode()
        except urllib.error.HTTPError as error:
            with error:
                return error.code, error.read().decode()
        except OSError:
            return 0, ""

    def test_serves_the_radios_of_the_server(self):
        monitor = self.start()
        self.wine.wait_for(lambda: self.get("/healthz")[0] == 503, "the monitor")
        with ForegroundRun(self.server, self.folder) as run:
            run.wait_for_record("Service started")
            self.wine.wait_for(lambda: self.get("/healthz") == (200, "ok\n"), "the connection")
            self.server.wait_until_a_radio_registers()
            esn = Radio.ESN.hex().upper()
            self.wine.wait_for(lambda: self.get(f"/api/radios/{esn}")[0] == 200, "the radio")
            self.assertEqual(json.loads(self.get("/api/radios")[1])["radios"][0]["state"], "registered")
            self.assertIn(f'quillmere_radios{{server="127.0.0.1:{self.server.tcp_port}",state="registered"}} 1\n', self.get("/metrics")[1])
            self.assertEqual(self.get("/api/radios", host="elsewhere.example")[0], 421)
            status, page = self.get("/")
            self.assertEqual(status, 200)
            self.assertIn("<title>", page)
        self.assertIsNone(monitor.poll())

    def test_ends_where_it_cannot_listen(self):
        with socket.create_server(("127.0.0.1", int(self.url.rsplit(":")[-1]))):
            monitor = self.start()
            self.assertEqual(monitor.wait(60), 1)
        self.assertIn("cannot listen at 127.0.0.1:", (self.folder / "monitor.log").read_text())

    def test_ends_with_help(self):
        done = self.wine.run(r"C:\quillmere\quillmere-monitor.exe", "--help")
        self.assertEqual(done.returncode, 0)
        self.assertIn(b"--login FILE", done.stdout)


if __name__ == "__main__":
    unittest.main(verbosity=2)
