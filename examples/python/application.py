#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""An application: it follows the radios of a server, keeps a table of them, and connects anew by itself."""

import collections
import ipaddress
import random
import re
import select
import signal
import socket
import struct
import sys
import time

USAGE = """usage: application.py HOST PORT [report=ESN@ADDRESS]
  report=0011AABB22CC33DD@127.0.0.2  tells the server, once, that this radio cannot be reached at this address"""

# --- The codec: bytes in and out, nothing else. All integers are little-endian, addresses too.

VERSION = 4
NOTICE, REPORT = 1, 2
LARGEST_PAYLOAD = 277
GONE = 0
STATES = {GONE: "gone", 1: "unreachable", 2: "unconfirmed", 3: "registered"}

# The header: "QMRA", version (1 byte), type (1), length of the payload (2).
HEADER = struct.Struct("<4sBBH")
# A notice's payload: ESN (8), SUID (7), pending (1), address (4), availability (1), service count (1), services.
NOTICE_PAYLOAD = struct.Struct("<8s7sBIBB")


class Lost(Exception):
    """The stream cannot be understood, and nothing in it tells where the next message begins."""


class Notice(collections.namedtuple("Notice", "esn suid pending address availability services")):
    def state(self):
        return "pending" if self.pending else STATES.get(self.availability, str(self.availability))

    def removes(self):
        """Whether the radio is in no table any more."""
        return not self.pending and self.availability == GONE


def decode_notice(payload):
    if len(payload) < NOTICE_PAYLOAD.size:
        raise Lost("a notice that is too short")
    esn, suid, pending, address, availability, count = NOTICE_PAYLOAD.unpack_from(payload)
    services = payload[NOTICE_PAYLOAD.size:]
    if len(services) != count:
        raise Lost("a notice whose length and service count disagree")
    return Notice(esn, suid, pending, ipaddress.IPv4Address(address), availability, services)


def take_notices(received):
    """Takes whole messages off the front of a bytearray and gives the notices among them; what TCP has delivered may
    end anywhere, so the rest stays for the next time."""
    while len(received) >= HEADER.size:
        magic, version, message_type, length = HEADER.unpack_from(received)
        if magic != b"QMRA" or version != VERSION or length > LARGEST_PAYLOAD:
            raise Lost("not a message of this protocol")
        if len(received) < HEADER.size + length:
            return
        payload = bytes(received[HEADER.size:HEADER.size + length])
        del received[:HEADER.size + length]
        if message_type == NOTICE:  # a later server may have more to say: other types are skipped
            yield decode_notice(payload)


def report(esn, address):
    return HEADER.pack(b"QMRA", VERSION, REPORT, 12) + esn + struct.pack("<I", int(ipaddress.IPv4Address(address)))


# --- The program.

FIRST_PAUSE, LONGEST_PAUSE = 1, 60  # seconds before the next attempt to connect
CONNECTING = 10  # seconds that an attempt may take, also when the program is to end
SILENCE = 2  # seconds without a notice that end a table: a server sends it without pauses
KEEPALIVE_IDLE, KEEPALIVE_INTERVAL, KEEPALIVE_PROBES = 20, 5, 3


def say(text):
    print(text, flush=True)


class Stopped(Exception):
    """Somebody wants the program to end."""


class Application:
    def __init__(self, host, port, to_report):
        self.host, self.port, self.to_report = host, port, to_report
        self.pause = FIRST_PAUSE
        self.table = {}  # notices by ESN; the old table is in use until a new one is complete
        self.told = None  # the ESNs of the new table so far; None: it is complete
        # A signal makes this socket readable. On Windows nothing else would end a wait.
        self.stop, self.wakeup = socket.socketpair()
        self.wakeup.setblocking(False)
        signal.set_wakeup_fd(self.wakeup.fileno())
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, lambda *_: None)

    def run(self):
        with self.stop, self.wakeup:
            try:
                while True:
                    try:
                        self.follow()
                    except (OSError, UnicodeError, Lost) as reason:  # UnicodeError: HOST can be nobody's name
                        say(f"disconnected: {reason}")
                    # Drawn by lot, so that a thousand applications do not come at once when a server is back.
                    self.wait(random.uniform(self.pause / 2, self.pause))
                    self.pause = min(2 * self.pause, LONGEST_PAUSE)
            except Stopped:
                pass

    def follow(self):
        """One connection, for as long as it lasts."""
        address = (socket.gethostbyname(self.host), self.port)
        with socket.create_connection(address, CONNECTING) as connection:
            say(f"connected to {self.host}:{self.port}")
            notice_cut_connection(connection)
            self.told = []
            received = bytearray()
            silent_at = time.monotonic() + SILENCE
            while True:
                # A quiet server is healthy: once the table is complete, there is no end to the wait.
                left = None if self.told is None else max(0, silent_at - time.monotonic())
                if not self.wait(left, connection):
                    self.complete(connection)
                    continue
                data = connection.recv(65536)
                if not data:
                    raise Lost("the server has closed the connection")
                received += data
                for notice in take_notices(received):
                    silent_at = time.monotonic() + SILENCE
                    self.take(notice, connection)

    def take(self, notice, connection):
        # A table is told in the order of the ESNs and has no mark at its end. What is out of order is a change.
        if self.told and notice.esn <= self.told[-1]:
            self.complete(connection)
        if self.told is not None:
            self.told.append(notice.esn)
        if notice.removes():
            self.table.pop(notice.esn, None)
        else:
            self.table[notice.esn] = notice
        services = ",".join(map(str, notice.services)) or "-"
        say(f"{notice.esn.hex().upper()} {notice.state()} {notice.address} {services}")

    def complete(self, connection):
        for esn in sorted(self.table.keys() - self.told):
            del self.table[esn]
            say(f"{esn.hex().upper()} left")
        self.told = None
        self.pause = FIRST_PAUSE
        say(f"table complete: {len(self.table)} radios")
        if self.to_report:
            esn, address = self.to_report
            connection.sendall(report(esn, address))
            self.to_report = None
            say(f"reported {esn.hex().upper()} at {address}")

    def wait(self, seconds, *sockets):
        """Whether one of them is readable in time; None: whenever that may be."""
        readable, _, _ = select.select([self.stop, *sockets], [], [], seconds)
        if self.stop in readable:
            raise Stopped
        return bool(readable)


def notice_cut_connection(connection):
    """A server whose network is cut off says nothing, like one where nothing happens. TCP asks in the silence; but not
    while a report is on its way: for that it has a patience of its own, of many minutes (TCP_USER_TIMEOUT)."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1)
    # macOS calls the first one TCP_KEEPALIVE; a system that lacks one of them has its own, mostly two hours.
    for name, value in (("TCP_KEEPIDLE", KEEPALIVE_IDLE), ("TCP_KEEPALIVE", KEEPALIVE_IDLE),
                        ("TCP_KEEPINTVL", KEEPALIVE_INTERVAL), ("TCP_KEEPCNT", KEEPALIVE_PROBES)):
        if hasattr(socket, name):
            connection.setsockopt(socket.IPPROTO_TCP, getattr(socket, name), value)


def options(words):
    """Raises ValueError for what cannot be understood."""
    host, port, *settings = words
    to_report = None
    for setting in settings:
        match = re.fullmatch("report=([0-9A-Fa-f]{16})@([0-9.]+)", setting)
        if not match:
            raise ValueError(setting)
        to_report = bytes.fromhex(match[1]), str(ipaddress.IPv4Address(match[2]))
    if not re.fullmatch("[0-9]{1,5}", port) or not 1 <= int(port) <= 65535:
        raise ValueError(port)
    return host, int(port), to_report


def main():
    try:
        chosen = options(sys.argv[1:])
    except ValueError:
        print(USAGE, file=sys.stderr)
        return 2
    Application(*chosen).run()
    return 0


if __name__ == "__main__":
    sys.exit(main())
