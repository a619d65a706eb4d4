#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A radio: it registers with a server, keeps its registration, and deregisters when it is ended (Ctrl-C)."""

import collections
import contextlib
import ipaddress
import random
import re
import select
import signal
import socket
import struct
import sys
import time

USAGE = """usage: radio.py HOST PORT [name=value ...]
  esn=0011AABB22CC33DD  16 hexadecimal digits; all zero: the server makes one
  suid=123456789ABCDE   14 hexadecimal digits: WACN (5), System (3), Unit (6)
  services=1,3          codes from 0 to 255, at most 255 of them; may be empty
  pending=0             1: the registration awaits confirmation
  local=0.0.0.0:PORT    address and port of the radio; PORT is the server's
  period=21600          seconds between registrations, at most 999999; when pending: 10"""

# --- The codec: bytes in and out, nothing else. All integers are little-endian.

VERSION = 3
ACKNOWLEDGEMENT, DEREGISTRATION, DISCOVERY_REQUEST, EXTENDED_REGISTRATION = 2, 3, 4, 5
NO_ESN = bytes(8)

# The header: "QMRS", version (1 byte), ESN (8), opcode (1), length of the payload (2).
HEADER = struct.Struct("<4sB8sBH")

Message = collections.namedtuple("Message", "esn opcode")


def datagram(esn, opcode, payload=b""):
    return HEADER.pack(b"QMRS", VERSION, esn, opcode, len(payload)) + payload


def registration(esn, suid, pending, services):
    return datagram(esn, EXTENDED_REGISTRATION, suid + bytes([pending, len(services)]) + services)


def deregistration(esn):
    return datagram(esn, DEREGISTRATION)


def decode(data):
    """What a server sends to a radio; None for anything else: whoever reaches the port can send to it."""
    if len(data) < HEADER.size:
        return None
    magic, version, esn, opcode, length = HEADER.unpack_from(data)
    payload_sizes = {ACKNOWLEDGEMENT: 1, DISCOVERY_REQUEST: 0}
    if magic != b"QMRS" or not 1 <= version <= 3 or length != payload_sizes.get(opcode):
        return None
    return Message(esn, opcode) if len(data) == HEADER.size + length else None


# --- The program.

FIRST_WAIT, LONGEST_WAIT = 2, 60  # seconds for an acknowledgement


def say(text):
    print(text, flush=True)


class Stopped(Exception):
    """Somebody wants the program to end."""


class Radio:
    def __init__(self, host, port, esn, suid, services, pending, local, period):
        self.host, self.port, self.period = host, port, period
        self.esn, self.suid, self.services, self.pending = esn, suid, services, pending
        self.server = None  # its address, as soon as it is known
        # One socket for everything. It is not connected: acknowledgements come from the port that a registration was
        # sent to, but discovery requests may come from any port of the server.
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        try:
            self.socket.bind(local)
        except OSError as failure:
            self.socket.close()
            sys.exit(f"radio.py: {local[0]}:{local[1]}: {failure.strerror}")
        # A signal makes this socket readable. On Windows nothing else would end a wait.
        self.stop, self.wakeup = socket.socketpair()
        self.wakeup.setblocking(False)
        signal.set_wakeup_fd(self.wakeup.fileno())
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, lambda *_: None)

    def run(self):
        try:
            while True:
                self.register()
                if self.wait(self.period, self.is_discovery_request):
                    say("discovery request")
        except Stopped:
            # It is not answered, so there is nothing to wait for.
            self.send(deregistration(self.own_esn()))
            say("deregistered")
        finally:
            for each in (self.socket, self.stop, self.wakeup):
                each.close()

    def register(self):
        say(f"registering {self.esn.hex().upper()} with {self.host}:{self.port}")
        # A pending registration lapses: it is renewed in time, acknowledged or not.
        longest_wait = min(self.period, LONGEST_WAIT) if self.pending else LONGEST_WAIT
        longest = min(FIRST_WAIT, longest_wait)
        while True:
            self.send(registration(self.esn, self.suid, self.pending, self.services))
            # Each wait is drawn by lot, so that a thousand radios do not march in step after a power cut. To register
            # twice does no harm: it may be the acknowledgement that was lost.
            message = self.wait(random.uniform(longest / 2, longest), self.is_acknowledgement)
            if message:
                break
            say("no acknowledgement, again")
            longest = min(2 * longest, longest_wait)
        self.esn = message.esn
        say(f"registered as {self.esn.hex().upper()}")

    def own_esn(self):
        """A radio that has no ESN is known by the one that the server makes."""
        return self.esn if self.esn != NO_ESN else b"\xf1" + self.suid

    def is_acknowledgement(self, message, sender):
        return message.opcode == ACKNOWLEDGEMENT and message.esn == self.own_esn() and sender == self.server

    def is_discovery_request(self, message, sender):
        return message.opcode == DISCOVERY_REQUEST and message.esn == self.esn and sender[0] == self.server[0]

    def send(self, data):
        # Looked up each time: the server may have moved, and the name service may be back later than the radio. Without
        # it the server is most likely where it was. UnicodeError: it can be nobody's name.
        with contextlib.suppress(OSError, UnicodeError):
            self.server = (socket.gethostbyname(self.host), self.port)
        # No network, or none yet: what counts is whether an acknowledgement comes.
        with contextlib.suppress(OSError):
            if self.server:
                self.socket.sendto(data, self.server)

    def wait(self, seconds, wanted):
        """The first message that is wanted, or None. What else arrives neither ends nor lengthens the wait."""
        deadline = time.monotonic() + seconds
        while (left := deadline - time.monotonic()) > 0:
            readable, _, _ = select.select([self.socket, self.stop], [], [], left)
            if self.stop in readable:
                raise Stopped
            if self.socket in readable:
                try:
                    data, sender = self.socket.recvfrom(2048)
                except OSError:
                    continue  # an earlier datagram reached nobody (ICMP): as good as no answer
                message = decode(data)
                if message and wanted(message, sender):
                    return message
        return None


def options(words):
    """Raises ValueError for what cannot be understood."""
    host, port, *settings = words
    values = {"esn": "0011AABB22CC33DD", "suid": "123456789ABCDE", "services": "1,3", "pending": "0",
              "local": f"0.0.0.0:{port}"}
    for setting in settings:
        name, separator, value = setting.partition("=")
        if not separator or name not in (*values, "period"):
            raise ValueError(setting)
        values[name] = value
    # A registration has to be made at least every 12 hours; a pending one lapses after 17 seconds.
    values.setdefault("period", "10" if values["pending"] == "1" else "21600")
    patterns = {"esn": "[0-9A-Fa-f]{16}", "suid": "[0-9A-Fa-f]{14}", "services": "([0-9]+(,[0-9]+)*)?",
                "pending": "[01]", "local": "[^:]+:[0-9]{1,5}", "period": "[1-9][0-9]{0,5}"}
    for name, value in values.items():
        if not re.fullmatch(patterns[name], value):
            raise ValueError(name)
    services = bytes(map(int, filter(None, values["services"].split(","))))
    address, local_port = values["local"].split(":")
    if not re.fullmatch("[0-9]{1,5}", port) or not 1 <= int(port) <= 65535:
        raise ValueError("PORT")
    if int(local_port) > 65535 or len(services) > 255:
        raise ValueError("out of range")
    return (host, int(port), bytes.fromhex(values["esn"]), bytes.fromhex(values["suid"]), services,
            int(values["pending"]), (str(ipaddress.IPv4Address(address)), int(local_port)), int(values["period"]))


def main():
    try:
        chosen = options(sys.argv[1:])
    except ValueError:
        print(USAGE, file=sys.stderr)
        return 2
    Radio(*chosen).run()
    return 0


if __name__ == "__main__":
    sys.exit(main())
