# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A fleet of radios that registers, changes, moves, takes addresses over and deregisters, at random."""

import select

from wire import (DEREGISTRATION, EXTENDED_REGISTRATION, PATIENCE, Application, Radios, datagram, registration,
                  split_datagram)

FLEET = 240
PENDING_FLEET = 8
ADDRESSES = 360  # a moving radio finds its new one taken now and then
FIRST_ADDRESS = 0x7F010001  # 127.1.0.1
FIRST_PENDING_ADDRESS = 0x7F020001


class Fleet:
    """What is sent next; SUIDs and addresses never repeat by chance."""

    def __init__(self, random):
        self.random = random
        self.serial = 0

    def _suid(self):
        self.serial += 1
        return b"\x12\x34\x56" + self.serial.to_bytes(4, "big")

    def next(self, ledger):
        """The source address as a number, and the datagram."""
        choice = self.random.random()
        if choice < 0.05:
            number = self.random.randrange(PENDING_FLEET)
            esn = b"pending" + bytes([number])
            return FIRST_PENDING_ADDRESS + number, registration(esn, self._suid(), b"\x01", pending=True)
        number = self.random.randrange(FLEET)
        esn = b"radio" + number.to_bytes(3, "big")
        state = ledger.life(esn).latest().state
        if state and choice < 0.20:
            return state.address, datagram(self.random.choice((esn, bytes(8))), DEREGISTRATION)
        moves = state is None or choice < 0.35
        address = FIRST_ADDRESS + self.random.randrange(ADDRESSES) if moves else state.address
        services = bytes(self.random.choices((1, 2, 3), k=self.random.randrange(5)))
        return address, registration(esn, self._suid(), services, version=self.random.choice((2, 3)))


class Flight:
    """Keeps up to width registrations unanswered, and tells the ledger all that is sent and received."""

    def __init__(self, fleet, ledger, server_ports, width):
        self.fleet = fleet
        self.ledger = ledger
        self.width = width
        self.unanswered = 0
        self.announced_last = None  # the SUID
        radio_port, application_port = server_ports
        self.radios = Radios(radio_port)
        self.application = Application(application_port)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.radios.__exit__()
        self.application.__exit__()

    def send(self):
        source, data = self.fleet.next(self.ledger)
        self.ledger.sent(source, data)
        self.radios.send(source, data)
        message = split_datagram(data)
        self.unanswered += message.opcode == EXTENDED_REGISTRATION
        return message

    def send_burst(self):
        """Fills up once half of it is answered, so that datagrams come in bursts."""
        if self.unanswered <= self.width // 2:
            while self.unanswered < self.width:
                self.send()

    def receive(self, timeout):
        """Waits for something to arrive, at most that long."""
        select.select([self.radios, self.application], [], [], timeout)
        self._take(self.application.receive())

    def receive_rest(self):
        """Of a server that is gone."""
        self._take(self.application.receive_rest())

    def _take(self, notices):
        for data in self.radios.receive():
            self.ledger.acknowledged(data)
            self.unanswered -= 1
        for notice in notices:
            self.ledger.announced(notice)
            self.announced_last = notice.suid

    def land(self):
        """Until everything is answered and announced, a registration last of all."""
        message = None
        while message is None or message.opcode != EXTENDED_REGISTRATION:
            message = self.send()
        while self.unanswered or self.announced_last != message.payload[:7]:
            if not select.select([self.radios, self.application], [], [], PATIENCE)[0]:
                raise AssertionError(f"{self.unanswered} registrations were not answered")
            self.receive(0)
