#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""What quillmere-monitor tells is what the server knows, and what alerts, dashboard and document say of it is true: metrics.py
PROGRAMS DOCS

Radios come, move, leave, are reported and await confirmation at random; QUILLMERE_METRICS_SEED brings a run back. Alerts and metrics
are held against promtool (QUILLMERE_PROMTOOL, or in the path); without it the rest is tested, and the exit code is 77, or 1
where CI is true.
"""

import contextlib
import json
import os
import pathlib
import random
import re
import select
import shutil
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.request

sys.dont_write_bytecode = True

from foreground import Server, die_with_this_run, memory_folder, wait_for  # noqa: E402
from wire import (DEREGISTRATION, PATIENCE, REGISTERED, UNCONFIRMED, UNREACHABLE, Application, Radios,  # noqa: E402
                  address_number, datagram, free_port, registration, report)

PROGRAMS, DOCS = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
PROMTOOL = os.environ.get("QUILLMERE_PROMTOOL") or shutil.which("promtool")
SEED = int(os.environ.get("QUILLMERE_METRICS_SEED", time.time_ns() & 0xFFFFFFFF))
RADIOS, STEPS = 40, 300
LONG_AGO = 24 * 3600  # seconds; after twelve hours of silence a radio is unreachable
STATES = {0: "gone", UNREACHABLE: "unreachable", UNCONFIRMED: "unconfirmed", REGISTERED: "registered"}
ALWAYS = ("registered", "unconfirmed", "unreachable", "pending")
SAMPLE = re.compile(r'(\w+)(?:\{(.*)\})? (\S+)')
METRIC = re.compile(r"\bquillmere_[a-z_]+\b")


def state_of(notice):
    return "pending" if notice.pending else STATES[notice.availability]


class Monitor:
    """The program, and what it serves."""

    def __init__(self, server_port):
        self.server = f"127.0.0.1:{server_port}"
        self.url = f"http://127.0.0.1:{free_port(socket.SOCK_STREAM)}"
        self.process = subprocess.Popen([PROGRAMS / "quillmere-monitor", "--server", self.server, "--listen", self.url[7:]],
                                        stderr=subprocess.DEVNULL, preexec_fn=die_with_this_run)

    def end(self):
        self.process.terminate()
        return self.process.wait(PATIENCE)

    def get(self, path):
        """Status and text; 0 while nobody listens."""
        try:
            with urllib.request.urlopen(self.url + path, timeout=PATIENCE) as answer:
                return answer.status, answer.read().decode()
        except urllib.error.HTTPError as error:
            with error:
                return error.code, error.read().decode()
        except OSError:
            return 0, ""

    def metrics(self):
        """Values by metric and labels, as in ("quillmere_radios", "registered"): without the one server's name."""
        found = {}
        for line in self.get("/metrics")[1].splitlines():
            if not line.startswith("#"):
                name, labels, value = SAMPLE.fullmatch(line).groups()
                labels = dict(re.findall(r'(\w+)="([^"]*)"', labels or ""))
                if labels.pop("server", self.server) != self.server:
                    raise AssertionError(line)
                found[(name, *labels.values())] = float(value)
        return found

    def radios(self):
        """By their ESNs, as the database has them: SUID, address, state, services."""
        listed = json.loads(self.get("/api/radios?limit=10000")[1])
        if listed["total"] != len(listed["radios"]):
            raise AssertionError(listed)
        return {radio["esn"]: (radio["wacn"] + radio["system"] + radio["unit"], radio["address"], radio["state"],
                               sorted(radio["services"])) for radio in listed["radios"]}


class Field:
    """Radios, and an application that counts what it is told."""

    def __init__(self, server_port, chance):
        self.chance = chance
        self.radios = Radios(server_port)
        self.application = Application(server_port)
        self.told = {}  # the last notice of each radio
        self.notices = {state: 0 for state in (*ALWAYS, "gone")}
        self.at = {}  # the address that each radio registered from last

    def close(self):
        self.radios.socket.close()
        self.application.socket.close()

    def listen(self):
        """Takes what has come; False: nothing has."""
        came = bool(select.select([self.application], [], [], 0)[0])
        for notice in self.application.receive() if came else ():
            self.notices[state_of(notice)] += 1
            self.told[notice.esn] = notice
        list(self.radios.receive())
        return came

    def known(self):
        return {esn.hex().upper(): state_of(notice) for esn, notice in self.told.items() if state_of(notice) != "gone"}

    def is_through(self):
        """The server takes datagrams in their order: it has told of one more radio when it is through with the others."""
        esn, suid = bytes([0x11, 0, 0, 0, 0, 0, 0, RADIOS]), bytes([0x12, 0x34, 0x56, 0x78, 0, 0, RADIOS])
        self.radios.send(address_number("127.9.1.1"), registration(esn, suid, b""))
        self.listen()
        return esn in self.told

    def report_one(self):
        """One of those that are registered; False: there is none."""
        registered = [notice for notice in self.told.values() if state_of(notice) == "registered"]
        if registered:
            self.application.socket.sendall(report(registered[0].esn, address_number(registered[0].address)))
        return bool(registered)

    def step(self):
        number = self.chance.randrange(RADIOS)
        esn, suid = bytes([0x11, 0, 0, 0, 0, 0, 0, number]), bytes([0x12, 0x34, 0x56, 0x78, 0, 0, number])
        address = address_number("127.9.0.1") + self.chance.randrange(RADIOS)
        what = self.chance.choices(("register", "pending", "leave", "report"), (10, 2, 3, 2))[0]
        if what == "report":
            if esn in self.at:
                self.application.socket.sendall(report(esn, self.at[esn]))
        elif what == "leave":
            self.radios.send(self.at.get(esn, address), datagram(esn, DEREGISTRATION))
        else:
            services = bytes(self.chance.sample(range(1, 6), self.chance.randrange(4)))
            self.radios.send(address, registration(esn, suid, services, pending=what == "pending"))
            self.at[esn] = address


class Agreement(unittest.TestCase):
    """Metrics, JSON, database and what an application is told."""

    def setUp(self):
        self.chance = random.Random(SEED)
        folder = memory_folder()
        self.addCleanup(folder.cleanup)
        port = free_port(socket.SOCK_DGRAM)
        self.server = Server(PROGRAMS / "quillmere", pathlib.Path(folder.name),
                             f"radioRegistrationPort={port}\napplicationPort={port}\nminimumDiscoveryPeriod=3600\n")
        self.addCleanup(self.server.kill)
        self.server.start()
        self.port = port
        self.monitor = Monitor(port)
        self.addCleanup(self.monitor.process.kill)

    def rows(self):
        with contextlib.closing(sqlite3.connect(f"file:{self.server.database}?mode=ro", uri=True)) as database:
            services = {}
            for radio, service in database.execute("SELECT subscriber_id, service FROM supported_services"):
                services.setdefault(radio, []).append(service)
            return {esn: (suid, socket.inet_ntoa(address.to_bytes(4, "big")), STATES[availability], sorted(services.get(key, [])))
                    for key, esn, suid, address, availability in
                    database.execute("SELECT id, hex(esn), hex(suid), ip_address, availability FROM subscribers")}

    def differences(self, field):
        """Between all four, as they are at this moment."""
        radios, rows, metrics = self.monitor.radios(), self.rows(), self.monitor.metrics()
        pending = {esn for esn, radio in radios.items() if radio[2] == "pending"}
        # A confirmed registration stays in the database while another one awaits confirmation.
        found = {"database": {esn: row for esn, row in rows.items() if esn not in pending}
                 == {esn: radio for esn, radio in radios.items() if esn not in pending}}
        states = [radio[2] for radio in radios.values()]
        found["states"] = {state: metrics.get(("quillmere_radios", state)) for state in ALWAYS} \
            == {state: states.count(state) for state in ALWAYS}
        services = [service for radio in radios.values() for service in set(radio[3])]
        found["services"] = {name[1]: value for name, value in metrics.items() if name[0] == "quillmere_service_radios"} \
            == {str(service): services.count(service) for service in set(services)}
        if field:
            while field.listen():
                pass
            found["application"] = field.known() == {esn: radio[2] for esn, radio in radios.items()}
            found["notices"] = {name[1]: value for name, value in metrics.items() if name[0] == "quillmere_notices_total"} \
                == field.notices
        return [name for name, agrees in found.items() if not agrees]

    def wait_for_agreement(self, field=None):
        """Radios that await confirmation lapse meanwhile: it takes a moment in which nothing happens."""
        self.last = None

        def agree():
            self.last = self.differences(field)
            return not self.last

        try:
            wait_for(agree, "agreement")
        except AssertionError as error:
            raise AssertionError(f"seed {SEED}: {self.last} do not agree\n{self.monitor.radios()}\n{self.rows()}\n"
                                 f"{self.monitor.metrics()}\n{field and (field.known(), field.notices)}") from error

    def wait_for_snapshot(self, radios):
        """Of this connection: what comes now is a change."""
        wait_for(lambda: self.monitor.metrics().get(("quillmere_snapshot_radios",)) == radios, "the end of the table")

    def test_random_run(self):
        self.wait_for_snapshot(0)
        self.assertEqual(self.monitor.get("/healthz"), (200, "ok\n"))
        self.assertNotIn(("quillmere_last_change_age_seconds",), self.monitor.metrics())
        field = Field(self.port, self.chance)
        self.addCleanup(field.close)
        # From then on it is told what the monitor is told.
        wait_for(lambda: sum("Application connected" in record for record in self.server.records()) == 2, "both connections")
        self.play(field)
        for state in ("registered", "unconfirmed", "pending", "gone"):
            self.assertGreater(field.notices[state], 0, f"seed {SEED}: the run has no radio that becomes {state}")
        metrics = self.monitor.metrics()
        self.assertEqual(metrics[("quillmere_connected",)], 1)
        self.assertEqual(metrics[("quillmere_reconnects_total",)], 0)
        self.assertGreaterEqual(metrics[("quillmere_last_change_age_seconds",)], 0)
        check_exposition(self, self.monitor)
        self.restart()

    def play(self, field):
        for _ in range(STEPS):
            field.step()
            field.listen()
        wait_for(field.is_through, "the last registration")
        self.wait_for_agreement(field)
        # Reports overtake the registrations that they are about, on a busy machine all of them.
        if field.report_one():
            wait_for(lambda: (field.listen(), field.notices["unconfirmed"])[1] > 0, "the radio that was reported")
        self.wait_for_agreement(field)

    def restart(self):
        """Some radios are unreachable then, and those that had not been confirmed are gone."""
        self.server.kill()
        wait_for(lambda: self.monitor.get("/healthz")[0] == 503, "that the monitor misses the server")
        metrics = self.monitor.metrics()
        self.assertEqual(metrics[("quillmere_connected",)], 0)
        rows = sorted(self.rows())
        silent = rows[::3]
        with contextlib.closing(sqlite3.connect(self.server.database)) as database, database:
            database.executemany("UPDATE subscribers SET last_contact_time = ? WHERE hex(esn) = ?",
                                 [(int(time.time()) - LONG_AGO, esn) for esn in silent])
        self.server.start()
        self.wait_for_snapshot(len(rows))
        self.wait_for_agreement()
        metrics = self.monitor.metrics()
        self.assertEqual(metrics[("quillmere_radios", "unreachable")], len(silent))
        self.assertEqual(metrics[("quillmere_radios", "unconfirmed")], len(rows) - len(silent))
        self.assertEqual(metrics[("quillmere_reconnects_total",)], 1)
        self.assertEqual(metrics[("quillmere_connected",)], 1)
        self.assertEqual(self.monitor.end(), 0)


def exposed(text):
    """Of each metric its type and its labels."""
    types = dict(re.findall(r"^# TYPE (\w+) (\w+)$", text, re.MULTILINE))
    labels = {name: set() for name in types}
    for name, written in re.findall(r"^(\w+)\{(.*)\} ", text, re.MULTILINE):
        labels[name] |= set(re.findall(r'(\w+)="', written))
    return {name: (kind, labels[name]) for name, kind in types.items()}


def documented():
    """The same, by docs/tools.md."""
    rows = re.findall(r"^\| `(quillmere_\w+)` \| (\w+) \| (.*?) \|", (DOCS / "tools.md").read_text(encoding="utf-8"), re.MULTILINE)
    return {name: (kind, set(re.findall(r"`(\w+)`", labels))) for name, kind, labels in rows}


def check_exposition(test, monitor):
    """What the metrics are called, once all of them have a value."""
    status, text = monitor.get("/metrics")
    test.assertEqual(status, 200)
    there = exposed(text)
    test.assertEqual(there, documented())
    for file in ("quillmere.rules.yml", "dashboard.json"):
        named = set(METRIC.findall((DOCS / "monitoring" / file).read_text(encoding="utf-8")))
        test.assertTrue(named)
        test.assertLessEqual(named, set(there), file)
    named = set(METRIC.findall((DOCS / "operations.md").read_text(encoding="utf-8")))
    test.assertLessEqual(named, set(there), "operations.md")
    if PROMTOOL:
        done = subprocess.run([PROMTOOL, "check", "metrics"], input=text.encode(), capture_output=True, check=False, timeout=PATIENCE)
        test.assertEqual((done.returncode, done.stdout, done.stderr), (0, b"", b""))


def dashboard():
    return json.loads((DOCS / "monitoring" / "dashboard.json").read_text(encoding="utf-8"))


class Alerts(unittest.TestCase):
    def test_the_guide_tells_of_each(self):
        rules = (DOCS / "monitoring" / "quillmere.rules.yml").read_text(encoding="utf-8")
        guide = (DOCS / "operations.md").read_text(encoding="utf-8")
        self.assertEqual(re.findall(r"^\| (Quillmere\w+) \|", guide, re.MULTILINE), re.findall(r"- alert: (\w+)", rules))

    def test_go_by_the_job_of_the_guide(self):
        rules = (DOCS / "monitoring" / "quillmere.rules.yml").read_text(encoding="utf-8")
        guide = (DOCS / "operations.md").read_text(encoding="utf-8")
        self.assertEqual(set(re.findall(r'job="(\w+)"', rules)), set(re.findall(r"job_name: (\w+)", guide)))


class Dashboard(unittest.TestCase):
    def test_asks_the_chosen_source_for_the_chosen_servers(self):
        board = dashboard()
        self.assertRegex(board["uid"], r"^[a-z-]+$")
        variables = {variable["name"]: variable for variable in board["templating"]["list"]}
        self.assertEqual(variables["datasource"]["type"], "datasource")
        self.assertEqual(variables["server"]["datasource"]["uid"], "${datasource}")
        self.assertGreater(len(board["panels"]), 5)
        self.assertEqual(len({panel["id"] for panel in board["panels"]}), len(board["panels"]))
        for panel in board["panels"]:
            with self.subTest(panel["title"]):
                for asked in (panel, *panel["targets"]):
                    self.assertEqual(asked["datasource"], {"type": "prometheus", "uid": "${datasource}"})
                for target in panel["targets"]:
                    for selector in re.findall(r"\bquillmere_\w+(\{[^}]*\})?", target["expr"]):
                        self.assertEqual(selector, '{server=~"$server"}')

    def test_panels_do_not_lie_on_each_other(self):
        taken = set()
        for panel in dashboard()["panels"]:
            place = panel["gridPos"]
            cells = {(x, y) for x in range(place["x"], place["x"] + place["w"]) for y in range(place["y"], place["y"] + place["h"])}
            self.assertFalse(taken & cells, panel["title"])
            self.assertLessEqual(place["x"] + place["w"], 24)
            taken |= cells


@unittest.skipUnless(PROMTOOL, "promtool is not there")
class Promtool(unittest.TestCase):
    """What Prometheus itself says."""

    def promtool(self, *arguments, folder=DOCS / "monitoring"):
        done = subprocess.run([PROMTOOL, *arguments], cwd=folder, capture_output=True, text=True, check=False, timeout=PATIENCE)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def test_takes_the_alerts(self):
        self.assertIn("SUCCESS", self.promtool("check", "rules", "quillmere.rules.yml"))
        self.promtool("test", "rules", "quillmere.rules.test.yml")

    def test_every_alert_is_tried_in_both_ways(self):
        rules = (DOCS / "monitoring" / "quillmere.rules.yml").read_text(encoding="utf-8")
        tests = (DOCS / "monitoring" / "quillmere.rules.test.yml").read_text(encoding="utf-8")
        alerts = re.findall(r"- alert: (\w+)", rules)
        self.assertGreater(len(alerts), 5)
        for alert in alerts:
            with self.subTest(alert):
                self.assertRegex(tests, rf"alertname: {alert}, eval_time: \w+, exp_alerts: \[\]")
                self.assertRegex(tests, rf"alertname: {alert}\n +eval_time: \w+\n +exp_alerts:\n +- exp_labels:")
                section = re.search(rf"- alert: {alert}\n(.*?)(?=- alert: |\Z)", rules, re.DOTALL)[1]
                for key in ("for: ", "severity: ", "summary: ", "description: "):
                    self.assertIn(key, section)

    def test_understands_what_the_dashboard_asks(self):
        asked = [target["expr"] for panel in dashboard()["panels"] for target in panel["targets"]]
        asked = [expression.replace("$__range", "1h").replace("$__rate_interval", "1m") for expression in asked]
        rules = [{"record": f"asked:{number}", "expr": expression} for number, expression in enumerate(asked)]
        with tempfile.TemporaryDirectory() as folder:
            # JSON is YAML, too.
            pathlib.Path(folder, "asked.yml").write_text(json.dumps({"groups": [{"name": "asked", "rules": rules}]}), encoding="utf-8")
            self.assertIn(f"{len(asked)} rules found", self.promtool("check", "rules", "asked.yml", folder=folder))


def main():
    print(f"seed {SEED}", flush=True)
    succeeded = unittest.main(argv=sys.argv[:1], exit=False).result.wasSuccessful()
    if not succeeded:
        return 1
    if not PROMTOOL:
        print("SKIPPED: alerts and metrics against promtool, which is not there; the rest has passed")
        return 1 if os.environ.get("CI") == "true" else 77
    return 0


sys.exit(main())
