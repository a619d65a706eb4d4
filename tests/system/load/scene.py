# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""What the tests of load share: a server, radios that are known by what they were acknowledged last, a crowd of
applications."""

import argparse
import contextlib
import os
import pathlib
import resource
import select
import selectors
import socket
import sqlite3
import sys
import time

from foreground import Service, memory_folder
from wire import PATIENCE, Radios, address_number, datagram, free_port, notice, registration, split_datagram
from wire import ACKNOWLEDGEMENT, DEREGISTRATION, REGISTERED, split_notice

SKIPPED = 77
FIRST_ADDRESS = address_number("127.1.0.1")


def check(condition, text):
    if not condition:
        raise AssertionError(text)


class CannotRun(Exception):
    """This machine's limits are too low."""


def limit_descriptors(count):
    """A launcher."""
    return "sh", "-c", 'ulimit -n "$0" && exec "$@"', str(count)


def want_descriptors(count):
    """For this process."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    if hard != resource.RLIM_INFINITY and hard < count:
        raise CannotRun(f"{count} descriptors are needed, the limit is {hard}")
    resource.setrlimit(resource.RLIMIT_NOFILE, (count, hard))


class Scene:
    """A running server, and all the radios that it ever heard of. Radio n is always at the same address."""

    def __init__(self, program, folder, launcher=()):
        self.ports = free_port(socket.SOCK_DGRAM), free_port(socket.SOCK_STREAM)
        settings = "radioRegistrationPort={}\napplicationPort={}\nminimumDiscoveryPeriod=86400\n".format(*self.ports)
        folder.mkdir(exist_ok=True)
        self.server = Service(program, folder, settings, launcher)
        self.complaints = open(folder / "stderr", "w+", encoding="utf-8")
        self.server.error_output = self.complaints
        self.server.start()
        self.radios = Radios(self.ports[0])
        self.known = {}  # radio: its latest notice
        self.serial = 0
        self.acknowledged = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.radios.__exit__()
        self.server.kill()
        self.complaints.close()

    def register(self, numbers, services=b"\x01\x03"):
        """Returns when all are acknowledged."""
        awaited = set()
        for number in numbers:
            self.serial += 1
            esn, suid = self.esn(number), b"\x12\x34\x56" + self.serial.to_bytes(4, "big")
            self.known[number] = notice(esn, suid, self.address(number), REGISTERED, services)
            self.radios.send(FIRST_ADDRESS + number, registration(esn, suid, services))
            awaited.add(esn)
        self.await_acknowledgements(awaited)

    def await_acknowledgements(self, awaited):
        """awaited: ESNs, different ones."""
        deadline = time.monotonic() + PATIENCE
        while awaited:
            check(time.monotonic() < deadline, f"{len(awaited)} registrations were not acknowledged")
            select.select([self.radios], [], [], 0.1)
            for data in self.radios.receive():
                message = split_datagram(data)
                if message.opcode == ACKNOWLEDGEMENT:
                    awaited.remove(message.esn)
                    self.acknowledged += 1

    def deregister_unknown(self, esn, source=FIRST_ADDRESS):
        self.radios.send(source, datagram(esn, DEREGISTRATION))

    @staticmethod
    def esn(number):
        return b"load" + number.to_bytes(4, "big")

    @staticmethod
    def address(number):
        return socket.inet_ntoa((FIRST_ADDRESS + number).to_bytes(4, "big"))

    def table(self):
        """What an application that connects now is told."""
        return b"".join(self.known[number] for number in sorted(self.known))

    def commits(self):
        """The database's own count of them; it has a rollback journal."""
        with open(self.server.database, "rb") as database:
            return int.from_bytes(database.read(28)[24:], "big")

    def check_rows(self):
        """Only while nothing happens: a reader locks the database."""
        with contextlib.closing(sqlite3.connect(self.server.database)) as database:
            rows = database.execute("SELECT esn, suid, ip_address, availability FROM subscribers").fetchall()
        stored = {esn: (suid, address, availability) for esn, suid, address, availability in rows}
        wanted = {self.esn(number): (split_notice(latest).suid, FIRST_ADDRESS + number, REGISTERED)
                  for number, latest in self.known.items()}
        check(stored == wanted, f"{len(wanted)} radios were acknowledged, the database has "
                                f"{sum(stored.get(esn) == row for esn, row in wanted.items())} of them as they are")

    def stop(self):
        check(self.server.stop() == 0, "the server was not stopped in order")
        self.check_records()
        check(self.server.records()[-1] == "Service stopped", "the last record is another one")
        self.complaints.seek(0)
        text = self.complaints.read()
        check(not text, f"Qt complains: {text[:200]}")

    def check_records(self, unwanted=("Database", "Failed")):
        found = [record for record in self.server.records() if record.startswith(unwanted)]
        check(not found, f"{len(found)} records like this one: {found[:1]}")


class Crowd:
    """Applications, and all that each has received."""

    def __init__(self, server_port):
        self.server = ("127.0.0.1", server_port)
        self.selector = selectors.DefaultSelector()
        self.received = {}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.leave(list(self.received))
        self.selector.close()

    def connect(self, count, *options):
        """options: what setsockopt() is given."""
        for _ in range(count):
            application = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
            for option in options:
                application.setsockopt(*option)
            application.settimeout(PATIENCE)
            application.connect(self.server)
            application.setblocking(False)
            self.received[application] = bytearray()
            self.selector.register(application, selectors.EVENT_READ)

    def leave(self, applications):
        for application in applications:
            self.selector.unregister(application)
            del self.received[application]
        for application in applications:
            application.close()

    def receive(self, timeout=0.0):
        for key, _ in self.selector.select(timeout):
            data = key.fileobj.recv(1 << 18)
            check(data, "the server has closed an application's connection")
            self.received[key.fileobj] += data

    def receive_until(self, condition, what):
        deadline = time.monotonic() + PATIENCE
        while not condition():
            check(time.monotonic() < deadline, f"waited in vain for {what}")
            self.receive(0.1)

    def served(self):
        return [application for application, stream in self.received.items() if stream]


def run(document, test, options):
    """The test's main program. test(program, folder, options) fails by an AssertionError; each option is
    (name, default, help) and can come from the environment as QUILLMERE_LOAD_NAME."""
    arguments = argparse.ArgumentParser(description=document, formatter_class=argparse.RawDescriptionHelpFormatter)
    arguments.add_argument("program")
    for name, default, text in options:
        from_environment = os.environ.get(f"QUILLMERE_LOAD_{name.upper()}", default)
        arguments.add_argument(f"--{name}", type=int, default=int(from_environment), help=f"{text} (default {default})")
    chosen = arguments.parse_args()
    began = time.monotonic()
    with memory_folder() as folder:
        try:
            test(os.path.abspath(chosen.program), pathlib.Path(folder), chosen)
        except AssertionError as failure:
            sys.exit(f"FAILED: {failure}")
        except CannotRun as reason:
            print(f"cannot run on this machine: {reason}")
            sys.exit(1 if os.environ.get("CI") == "true" else SKIPPED)
    print(f"passed, in {time.monotonic() - began:.1f} s")
