#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The demo that shows the monitor's page serves it, moves, and leaves nothing behind: demopage.py DEMO-PAGE PROGRAMS"""

import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import unittest
import urllib.error
import urllib.request

sys.dont_write_bytecode = True

from foreground import wait_for  # noqa: E402
from wire import PATIENCE  # noqa: E402

DEMO, PROGRAMS = sys.argv[1:3]
SEEN = {"registered": r'quillmere_radios\{.*state="registered"\} ([1-9]\d\d)$', "pending": r'quillmere_radios\{.*state="pending"\} [1-9]',
        "gone": r'quillmere_notices_total\{.*state="gone"\} [1-9]', "unconfirmed": r'quillmere_notices_total\{.*state="unconfirmed"\} [1-9]'}


def get(url):
    try:
        with urllib.request.urlopen(url, timeout=PATIENCE) as answer:
            return answer.read().decode()
    except urllib.error.HTTPError as error:
        with error:
            return error.read().decode()


def take_interrupts():
    """Also where this run is in the background, which ignores them."""
    signal.signal(signal.SIGINT, signal.SIG_DFL)


def of_session(leader):
    """Processes that have not ended."""
    found = []
    for process in pathlib.Path("/proc").iterdir():
        try:
            # Behind the name, which may hold anything: state, parent, group, session.
            state, _, _, session = (process / "stat").read_text(encoding="utf-8").rpartition(")")[2].split()[:4]
        except (OSError, ValueError):
            continue
        if process.name.isdigit() and session == str(leader) and state != "Z":
            found.append((process.name, (process / "cmdline").read_bytes()))
    return found


class DemoPage(unittest.TestCase):
    """From its start to Ctrl-C, and to a kill."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.demo = subprocess.Popen([DEMO, PROGRAMS], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, start_new_session=True,
                                     env={**os.environ, "TMPDIR": str(self.folder)}, preexec_fn=take_interrupts)
        self.addCleanup(self.demo.stdout.close)
        self.addCleanup(self.end_for_sure)

    def end_for_sure(self):
        for process, _ in of_session(self.demo.pid):
            os.kill(int(process), signal.SIGKILL)
        self.demo.wait()

    def address(self):
        for line in self.demo.stdout:
            if found := re.search(r"http://127\.0\.0\.1:\d+/", line):
                return found[0]
        self.fail("it has ended without an address")

    def has_ended(self):
        self.assertEqual(self.demo.wait(PATIENCE), 0)
        wait_for(lambda: not of_session(self.demo.pid), "the end of all its processes")
        self.assertEqual(list(self.folder.iterdir()), [])

    def test_shows_a_fleet_until_it_is_interrupted(self):
        page = self.address()
        self.assertEqual(get(page + "healthz"), "ok\n")

        def sees_all():
            metrics = get(page + "metrics")
            return all(re.search(pattern, metrics, re.MULTILINE) for pattern in SEEN.values())

        wait_for(sees_all, f"radios in each of {sorted(SEEN)}")
        self.assertGreater(len(of_session(self.demo.pid)), 4)
        os.killpg(self.demo.pid, signal.SIGINT)  # as a terminal does
        self.has_ended()

    def test_ends_when_it_alone_is_asked_to(self):
        self.address()
        self.demo.terminate()
        self.has_ended()


unittest.main(argv=sys.argv[:1])
