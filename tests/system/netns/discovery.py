#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""A discovery request reaches a radio on another host, and its answer ends the search.

usage: discovery.py <quillmere>

The hosts are network namespaces: the server has one, each radio and the application one of its own. They are
made inside a network and a mount namespace of this run, so that nothing shows outside and all of it is gone
with the last process, however the run ends. Exits with 77 where namespaces cannot be made, with 1 there when
CI is true.
"""

import contextlib
import os
import pathlib
import signal
import socket
import sqlite3
import sys
import tempfile
import time

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

import wire  # noqa: E402
from foreground import Server, wait_for  # noqa: E402
from namespaces import CannotRun, make_hosts, on_host, skipped  # noqa: E402
from wire import DISCOVERY, PATIENCE, REGISTERED, UNCONFIRMED, UNREACHABLE  # noqa: E402

PORT = 9361  # of both protocols, and of the radios: where requests go

SERVER_HOST = "server"
SERVER_ADDRESS = "10.77.0.1"
APPLICATION_HOST = ("application", "10.77.0.9")
LOST = ("lost", "10.77.0.5")
SILENT = ("silent", "10.77.0.6")


def check(condition, text):
    if not condition:
        raise AssertionError(text)


def esn(serial):
    return bytes([0x00, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, serial])


def suid(serial):
    return bytes([0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, serial])


def notice(serial, address, availability):
    return wire.notice(esn(serial), suid(serial), address, availability)


class SearchingServer(Server):
    """On its host, without a pause between requests."""

    def __init__(self, program, folder):
        launcher = ["ip", "netns", "exec", SERVER_HOST]
        super().__init__(program, folder, "minimumDiscoveryPeriod=0\n", launcher)

    def rows(self):
        with contextlib.closing(sqlite3.connect(self.database, timeout=PATIENCE)) as database:
            return database.execute("SELECT esn, availability, num_discovery_attempts, last_discovery_attempt, "
                                    "last_contact_time FROM subscribers ORDER BY esn").fetchall()

    def store(self, serial, availability, address, now):
        """A radio heard from a minute ago, asked for long ago."""
        with contextlib.closing(sqlite3.connect(self.database)) as database, database:
            database.execute("INSERT INTO subscribers (esn, suid, ip_address, availability, last_contact_time, "
                             "num_discovery_attempts, last_discovery_attempt, protocol_version) "
                             "VALUES (?, ?, ?, ?, ?, 0, ?, 3)",
                             (esn(serial), suid(serial), wire.address_number(address), availability, now - 60,
                              now - 100000))


def open_radio(host):
    """A radio's socket, at its own address and at the port where requests are sent to."""
    with on_host(host[0]):
        radio = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    radio.settimeout(PATIENCE)
    radio.bind((host[1], PORT))
    return radio


def run(program, folder):
    server = SearchingServer(program, folder)
    try:
        # A first run makes the database; what it is to find at the next start is then put in.
        server.start()
        server.kill()
        now = int(time.time())
        server.store(1, REGISTERED, LOST[1], now)
        server.store(2, UNREACHABLE, SILENT[1], now)

        with open_radio(LOST) as lost, open_radio(SILENT) as silent:
            server.start()
            story(server, lost, silent, now)
    finally:
        server.kill()


def story(server, lost, silent, now):
    # Both requests leave at once, each to its radio's own address and to the registration port.
    for radio, serial in ((lost, 1), (silent, 2)):
        request, sender = radio.recvfrom(2048)
        check(request == wire.datagram(esn(serial), DISCOVERY), f"not a discovery request: {request.hex()}")
        check(sender == (SERVER_ADDRESS, PORT), f"request from {sender}")
    wait_for(lambda: [row[2] for row in server.rows()] == [1, 1], "both attempts to be stored")
    check([row[1] for row in server.rows()] == [UNCONFIRMED, UNREACHABLE], f"rows {server.rows()}")
    check(all(row[3] >= now for row in server.rows()), f"rows {server.rows()}")

    with on_host(APPLICATION_HOST[0]):
        application = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    with application:
        application.settimeout(PATIENCE)
        application.connect((SERVER_ADDRESS, PORT))
        snapshot = notice(1, LOST[1], UNCONFIRMED) + notice(2, SILENT[1], UNREACHABLE)
        received = wire.receive_exactly(application, len(snapshot))
        check(received == snapshot, f"snapshot {received.hex()}")

        # One answers as radios do, by registering again; it is then no longer searched for.
        lost.sendto(wire.registration(esn(1), suid(1)), (SERVER_ADDRESS, PORT))
        acknowledgement = lost.recv(2048)
        check(acknowledgement == wire.acknowledgement(esn(1)), f"acknowledgement {acknowledgement.hex()}")
        announced = notice(1, LOST[1], REGISTERED)
        received = wire.receive_exactly(application, len(announced))
        check(received == announced, f"notice {received.hex()}")

    answered, unanswered = server.rows()
    check(answered[1:3] == (REGISTERED, 0) and answered[4] >= now, f"row {answered}")
    check(unanswered[1:3] == (UNREACHABLE, 1) and unanswered[4] == now - 60, f"row {unanswered}")
    registered = ("Radio 0011AABB22CC3301 with SUID {WACN: 0x12345, System: 0x678, Unit: 0x9ABC01} registered "
                  f"with address {LOST[1]}")
    check(server.records().count(registered) == 1, f"records {server.records()}")
    check(not any("rror" in record for record in server.records()), f"records {server.records()}")


def main():
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    try:
        make_hosts((SERVER_HOST, SERVER_ADDRESS), APPLICATION_HOST, LOST, SILENT)
    except CannotRun as reason:
        return skipped("discovery between hosts", reason)
    with tempfile.TemporaryDirectory(prefix="quillmere-") as folder:
        try:
            run(os.path.abspath(sys.argv[1]), pathlib.Path(folder))
        except (AssertionError, OSError) as failure:
            print(f"FAILED: {failure}", file=sys.stderr)
            return 1
    print("PASSED: both requests arrived, and the answer took its radio off the queue")
    return 0


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    sys.exit(main())
