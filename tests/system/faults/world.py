# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A server whose system calls can fail, with its radios and applications; and the look at what it has kept."""

import collections
import contextlib
import itertools
import os
import pathlib
import shutil
import signal
import socket
import sqlite3
import time

from control import Control
from foreground import Service, wait_for
from ledger import read_rows
from wire import (ACKNOWLEDGEMENT, DEREGISTERED, DEREGISTRATION, REGISTERED, Application, Radios, address_number, datagram,
                  registration, split_datagram, take_notices)

RECOVERY = 5  # seconds from a fault's end
SETTLING = 1  # seconds that a fault lasts at most while the server neither comes to rest nor hurries
STORED = 5  # radios that are there before
PROBE = 60000  # the number of the radio that only asks whether it is served
FIRST_ADDRESS = address_number("127.1.0.1")

UNOPENED = "Failed to open database"
UNUSABLE = "Database schema: unable to continue"
STARTED = "Service started"

FIRST_PORT, LAST_PORT = 10000, 32000
PORTS = itertools.cycle(range(FIRST_PORT, LAST_PORT))

Radio = collections.namedtuple("Radio", "suid address services availability")


class Lost(Exception):
    """The server is not as it should be after a fault."""


class Crashed(Exception):
    """The server has ended."""


def require(condition, text):
    if not condition:
        raise Lost(text)


def free_ports():
    """One for datagrams, one for connections. None of those that the system gives to clients: many servers of this run
    and its clients come and go at once."""
    for _ in range(1000):
        port = next(PORTS)
        with socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as radio, socket.socket() as application:
            application.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            with contextlib.suppress(OSError):
                radio.bind(("", port))
                application.bind(("", port))
                return port, port
    raise AssertionError("no port is free")


class Client(Application):
    """What it has been told is its view, by ESN."""

    def __init__(self, server_port):
        super().__init__(server_port)
        self.known = {}
        self.has_ended = False

    def look(self):
        try:
            more = self.socket.recv(1 << 20)
            self.has_ended = self.has_ended or not more
            self.stream += more
        except BlockingIOError:
            pass
        except ConnectionResetError:
            self.has_ended = True
        for notice in take_notices(self.stream):
            self.known[notice.esn] = Radio(notice.suid, notice.address, bytes(notice.services), notice.availability)
            if notice.availability == DEREGISTERED:
                del self.known[notice.esn]
        return self.known


class World:
    def __init__(self, program, interposer, place, mode, template=None):
        """template: the content of the data folder by file name; nothing: a first start of all."""
        self.mode = mode
        self.place = place
        place.mkdir()
        self.ports = free_ports()
        settings = "radioRegistrationPort={}\napplicationPort={}\nminimumDiscoveryPeriod=86400\n".format(*self.ports)
        self.server = Service(program, place, settings)
        for name, content in (template or {}).items():
            (self.server.folder / name).write_bytes(content)
        self.control = Control(place / "faults")
        self.server.environment.update(LD_PRELOAD=str(interposer), QUILLMERE_FAULTS=str(self.control.path))
        # A sanitizer's runtime insists on being loaded first, and works as the second too.
        options = [os.environ.get("ASAN_OPTIONS"), "verify_asan_link_order=0"]
        self.server.environment["ASAN_OPTIONS"] = ":".join(filter(None, options))
        self.complaints = open(place / "stderr", "w+", encoding="utf-8")
        self.server.error_output = self.complaints
        self.radios = Radios(self.ports[0])
        self.watcher = None
        self.serial = 1000 if template else 0  # SUIDs are others than the stored ones
        self.number = STORED
        (place / "copy").mkdir()

    def close(self):
        if self.watcher:
            self.watcher.__exit__()
        self.radios.__exit__()
        self.server.kill()
        self.server.notified.close()
        self.complaints.close()
        self.control.close()

    def start(self):
        self.launch()
        wait_for(self.server.is_started, "the server to start", pause=0.002)
        self.control.await_idle()

    def watch(self):
        """An application that is there all the time."""
        self.watcher = Client(self.ports[1])
        wait_for(self.watcher.look, "the table")

    def launch(self):
        """Does not wait for it."""
        self.forget_states()
        is_started, self.server.is_started = self.server.is_started, lambda: True
        try:
            self.server.start()
        finally:
            self.server.is_started = is_started
        self.control.pid = self.server.process.pid

    def forget_states(self):
        """What the server has reported of itself: one that finds no room for more waits."""
        self.server.notified.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                self.server.notified.recv(4096)

    def register_all(self):
        for number in range(STORED):
            self.register(number)
        acknowledged = 0
        deadline = time.monotonic() + RECOVERY
        while acknowledged < STORED:
            require(time.monotonic() < deadline, "the radios were not acknowledged")
            acknowledged += self.acknowledgements()

    def register(self, number):
        """A new SUID each time, and other services. Returns what is then to be known of it."""
        self.serial += 1
        suid = b"\x12\x34\x56" + self.serial.to_bytes(4, "big")
        radio = Radio(suid, FIRST_ADDRESS + number, bytes((1 + self.serial % 3, 2)), REGISTERED)
        self.radios.send(radio.address, registration(self.esn(number), suid, radio.services))
        return radio

    def deregister(self, number):
        self.radios.send(FIRST_ADDRESS + number, datagram(self.esn(number), DEREGISTRATION))

    def acknowledgements(self):
        return sum(split_datagram(data).opcode == ACKNOWLEDGEMENT for data in self.radios.receive())

    @staticmethod
    def esn(number):
        return b"fault" + number.to_bytes(3, "big")

    def forget_records(self):
        self.server.forget_records()

    def is_listening(self):
        with contextlib.suppress(ConnectionRefusedError):
            with Client(self.ports[1]):
                return True
        return False

    def check_alive(self):
        status = self.server.process.poll()
        if status is not None:
            self.complaints.seek(0)
            raise Crashed(f"the server has ended with {status}: {self.complaints.read()[-2000:]}")

    def table(self, deadline):
        """What an application that comes now is told of the radios."""
        with Client(self.ports[1]) as client:
            while not client.look() or not self.control.is_idle():
                self.check_alive()
                require(time.monotonic() < deadline, "an application is not told of the radios")
                require(not client.has_ended, "the connection of an application that comes has ended")
            return client.look()

    def rows(self):
        """As anybody else finds them. A rollback journal is looked at in a copy of the folder: whoever opens the
        database itself rolls back what the server has left."""
        if self.mode == "wal":
            return self.read(self.server.database)
        copy = self.place / "copy" / "qmr.db"
        for suffix in ("", "-journal"):
            source, target = (pathlib.Path(f"{path}{suffix}") for path in (self.server.database, copy))
            target.unlink(missing_ok=True)
            with contextlib.suppress(FileNotFoundError):
                shutil.copyfile(source, target)
        return self.read(copy)

    @staticmethod
    def read(database):
        return {esn: Radio(state.suid, state.address, state.services, availability)
                for esn, (state, availability) in read_rows(database).items()}

    def check_agreement(self, deadline):
        """Memory and rows, without anything else that happens. Returns them."""
        while True:
            memory = self.table(deadline)
            self.control.await_idle()
            try:
                rows = self.rows()
                difference = self.difference(memory, rows)
            except (AssertionError, sqlite3.Error) as failure:
                difference = f"the database is not whole: {failure}"
            if not difference:
                return memory
            require(time.monotonic() < deadline, difference)
            time.sleep(0.1)

    @staticmethod
    def difference(memory, rows):
        for esn in memory.keys() | rows.keys():
            if memory.get(esn) != rows.get(esn):
                return f"radio {esn.hex()} is {memory.get(esn)} in memory and {rows.get(esn)} in the database"
        return ""

    def check_served(self, deadline):
        """A radio registers, and everybody is told; anybody else can write to the database."""
        self.acknowledgements()
        radio = self.register(PROBE)
        while not self.acknowledgements():
            self.check_alive()
            require(time.monotonic() < deadline, "a registration is not acknowledged")
            time.sleep(0.002)
        self.control.await_idle()
        told = self.table(deadline).get(self.esn(PROBE))
        require(told == radio, f"an application is told {told} of a radio that has registered")
        stored = self.rows().get(self.esn(PROBE))
        require(stored == told, f"a radio that has registered is stored as {stored}")
        with contextlib.closing(sqlite3.connect(self.server.database, timeout=1)) as database:
            try:
                database.execute("BEGIN IMMEDIATE")
            except sqlite3.Error as failure:
                raise Lost(f"nobody else can write to the database: {failure}") from failure
            database.rollback()

    def terminate(self):
        self.server.process.send_signal(signal.SIGTERM)

    def stop(self):
        status = self.server.stop()
        require(status == 0, f"the server has ended with {status}")

    def contents(self):
        """Of the data folder, once the server is gone."""
        return {path.name: path.read_bytes() for path in self.server.folder.iterdir() if path.name.startswith("qmr.db")}


def make_template(program, interposer, place, mode):
    """The data folder of a server that has stopped, its database in the journal mode."""
    world = World(program, interposer, place, mode)
    try:
        if mode == "wal":
            with contextlib.closing(sqlite3.connect(world.server.database)) as database:
                database.execute("PRAGMA journal_mode=wal")
        world.start()
        world.register_all()
        world.stop()
        return world.contents()
    finally:
        world.close()
