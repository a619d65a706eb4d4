# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The radios of a soak: each does one thing at a time, repeats it until it has come about, and knows how it stands."""

import time

from ledger import State
from wire import (ACKNOWLEDGEMENT, DEREGISTRATION, REGISTERED, UNCONFIRMED, Notice, Radios, address_number,
                  basic_registration, datagram, registration, split_datagram)

FIRST_ADDRESS = address_number("127.1.0.0")
ADDRESSES = 8  # that are a radio's own
REPEAT = 1.0  # seconds without an answer until a radio sends again
REPEATS = 20  # then it gives up: its registration is lost
LAPSE, CLOCK_SLACK = 17, 1  # seconds that a pending registration lasts; and what a clock that is set may take from them
PENDING_VERSION = 3
# An acknowledgement names the radio only. What comes late, because the radio had repeated, comes to the port of the
# registration that it is for: consecutive ones have different ports.
PORTS = 4

REGISTER, PEND, LEAVE, WITHDRAW, REPORT = "register", "pend", "leave", "withdraw", "report"


class Lost(AssertionError):
    pass


class Operation:
    """What a radio has begun and not yet seen the end of."""

    def __init__(self, kind, datagrams=(), result=None, victim=None, port=0):
        self.kind = kind
        self.datagrams = datagrams  # (source address, data)
        self.result = result  # State, of a registration
        self.victim = victim  # the radio that loses its address by it
        self.port = port
        self.began = None  # when it was sent first
        self.due = time.monotonic()
        self.repeats = -1
        self.is_urgent = True  # has met no outage: its time counts


class Radio:
    """state, pending: State, or None. availability is that of the state."""

    def __init__(self, number, esn, version):
        self.number = number
        self.esn = esn
        self.version = version
        self.state = self.pending = self.operation = None
        self.availability = UNCONFIRMED
        self.pending_since = 0.0
        self.ended = None  # the SUID of the pending registration that applications have last seen ending
        self.is_lapsing = False  # says nothing more until its pending registration has gone
        self.victor = None  # the radio that is just taking its address
        self.sent = 0

    def is_idle(self):
        return self.operation is None and self.victor is None and not self.is_lapsing

    def notice(self):
        """What applications have to have been told last; None: that it has gone."""
        if self.pending:
            return Notice(self.esn, self.pending.suid, 1, self.pending.address, REGISTERED, self.pending.services)
        if self.state:
            return Notice(self.esn, self.state.suid, 0, self.state.address, self.availability, self.state.services)
        return None

    def may_be_stored(self, state):
        """Whether a server that has just died may have left it so."""
        if state == self.state:
            return True
        if self.victor:
            return state is None
        if self.operation and self.operation.kind in (REGISTER, LEAVE):
            return state == self.operation.result
        return False


class Fleet:
    """view, of every call, is how an application sees the radios that is told of every change."""

    def __init__(self, count, server_port, chance):
        self.random = chance
        self.ports = [Radios(server_port) for _ in range(PORTS)]
        # Every fourth of version 2, every fourth of version 1.
        self.radios = [Radio(number, b"soak" + number.to_bytes(4, "big"), {1: 2, 2: 1}.get(number % 4, 3))
                       for number in range(count)]
        # Behind all others in any table: who has been told of it has been told of all that was before.
        self.beacon = Radio(count, b"\xff" * 8, 3)
        self.by_esn = {radio.esn: radio for radio in (*self.radios, self.beacon)}
        self.busy = set()
        self.serial = 0
        self.registrations = self.lost = self.late = 0
        self.latencies = []  # seconds, of registrations that met no outage

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for port in self.ports:
            port.__exit__()

    # What radios begin

    def begin_at_random(self, view, told_of_all):
        """One radio begins something, unless all that are tried are busy."""
        for _ in range(10):
            radio = self.random.choice(self.radios)
            if radio.is_idle():
                break
        else:
            return
        # What ends by what applications are told begins once they have been told how it stands.
        is_known = told_of_all and view.get(radio.esn) == radio.notice()
        choice = self.random.random()
        if radio.pending:
            if choice < 0.3:
                same = radio.pending if self.random.random() < 0.5 else None
                self.pend(radio, radio.pending.address, same)
            elif choice < 0.4:
                self.pend(radio, self.free_address(radio))
            elif choice < 0.7:
                self.register(radio, radio.pending.address)  # which confirms it
            elif choice < 0.8 and is_known and radio.pending.address != (radio.state and radio.state.address):
                self.start(radio, Operation(WITHDRAW, [(radio.pending.address, self.farewell(radio))]))
            elif choice < 0.9 and is_known:
                self.leave(radio)
            elif choice >= 0.9:
                radio.is_lapsing = True
        elif radio.version == PENDING_VERSION and choice < 0.15:
            self.pend(radio, self.free_address(radio))
        elif radio.state is None or choice < 0.45:
            self.register(radio, radio.state.address if radio.state else self.free_address(radio))
        elif choice < 0.70:
            self.register(radio, self.free_address(radio))
        elif choice < 0.80:
            self.take_over(radio)
        elif is_known:
            self.leave(radio)

    def register(self, radio, address, victim=None):
        self.serial += 1
        suid = self.suid() if radio.version > 1 else bytes(7)
        services = bytes(self.random.choices((1, 2, 3), k=self.random.randrange(5)))
        if radio.version > 1:
            data = registration(radio.esn, suid, services, version=radio.version)
        else:
            data = basic_registration(radio.esn, services)
        self.send_registration(radio, REGISTER, address, data, State(suid, address, services, radio.version), victim)

    def pend(self, radio, address, same=None):
        suid, services = (same.suid, same.services) if same else (self.suid(), bytes([self.random.choice((1, 2, 3))]))
        data = registration(radio.esn, suid, services, pending=True)
        self.send_registration(radio, PEND, address, data, State(suid, address, services, radio.version), None)

    def send_registration(self, radio, kind, address, data, result, victim):
        radio.sent += 1
        self.start(radio, Operation(kind, [(address, data)], result, victim, radio.sent % PORTS))

    def take_over(self, radio):
        victim = self.random.choice(self.radios)
        if victim is not radio and victim.is_idle() and victim.state and not victim.pending:
            victim.victor = radio
            self.register(radio, victim.state.address, victim)

    def leave(self, radio):
        """From each of its addresses."""
        addresses = [state.address for state in (radio.pending, radio.state) if state]
        self.start(radio, Operation(LEAVE, [(address, self.farewell(radio)) for address in addresses]))

    def farewell(self, radio):
        is_named = radio.version == 1 or self.random.random() < 0.5
        return datagram(radio.esn if is_named else bytes(8), DEREGISTRATION, version=radio.version)

    def reported(self, view):
        """A radio that an application is to report; None: there is none just now."""
        radio = self.random.choice(self.radios)
        if (radio.is_idle() and radio.state and not radio.pending and radio.availability == REGISTERED
                and view.get(radio.esn) == radio.notice()):
            self.start(radio, Operation(REPORT))
            return radio
        return None

    def start(self, radio, operation):
        radio.operation = operation
        self.busy.add(radio)

    def suid(self):
        self.serial += 1
        return b"\x12\x34\x56" + self.serial.to_bytes(4, "big")

    def free_address(self, radio):
        taken = set()
        for other in (*self.radios, self.beacon):
            results = [other.operation.result] if other.operation else []
            taken.update(state.address for state in (other.state, other.pending, *results) if state)
        own = FIRST_ADDRESS + ADDRESSES * (radio.number + 1)
        return self.random.choice([address for address in range(own, own + ADDRESSES) if address not in taken])

    # What comes of it

    def end_what_is_over(self, view):
        for radio in list(self.busy):
            if self.is_over(radio, view.get(radio.esn)):
                self.finish(radio)

    def go_on(self, view, told_of_all, server_is_up):
        """Sends what is due; ends what applications have been told of. Returns the radios to report again."""
        now, reports = time.monotonic(), []
        if told_of_all:
            self.end_what_is_over(view)
        for radio in self.busy:
            operation = radio.operation
            if operation.due <= now:
                operation.due = now + REPEAT
                operation.is_urgent = operation.is_urgent and server_is_up
                operation.repeats += server_is_up  # in an outage a radio's patience is another one's concern
                if operation.repeats > REPEATS:
                    self.lost += operation.kind in (REGISTER, PEND)
                    raise Lost(f"radio {radio.esn.hex()}: no answer, or no notice, to {operation.kind} "
                               f"after {REPEATS} repeats")
                if operation.began is None:
                    operation.began = now
                for source, data in operation.datagrams:
                    self.ports[operation.port].send(source, data)
                if operation.kind == REPORT:
                    reports.append(radio)
        return reports

    @staticmethod
    def is_over(radio, seen):
        kind = radio.operation.kind
        if kind == LEAVE:
            return seen is None
        if kind == WITHDRAW:
            return seen is None or not seen.pending
        return kind == REPORT and seen is not None and seen.availability == UNCONFIRMED

    def finish(self, radio):
        operation, radio.operation = radio.operation, None
        self.busy.discard(radio)
        if operation.kind == LEAVE:
            radio.state = radio.pending = None
        elif operation.kind == WITHDRAW:
            radio.pending = None
        elif operation.kind == REPORT:
            radio.availability = UNCONFIRMED
        elif operation.kind == PEND:
            # Applications may have been told of its end before this.
            radio.pending = None if radio.ended == operation.result.suid else operation.result
            radio.pending_since = operation.began
        else:
            radio.state, radio.availability = operation.result, REGISTERED
            if operation.victim:
                operation.victim.state = operation.victim.victor = None

    def receive(self):
        """Takes the acknowledgements that have come."""
        for number, port in enumerate(self.ports):
            for data in port.receive():
                message = split_datagram(data)
                radio = self.by_esn.get(message.esn)
                if message.opcode != ACKNOWLEDGEMENT or radio is None or message.version != radio.version:
                    raise AssertionError(f"an unexpected datagram: {data.hex(' ')}")
                operation = radio.operation
                if operation is None or operation.kind not in (REGISTER, PEND) or operation.port != number:
                    self.late += 1
                    continue
                if operation.is_urgent:
                    self.latencies.append(time.monotonic() - operation.began)
                self.registrations += 1
                self.finish(radio)

    def told(self, before, notice):
        """Is called with each notice, and the one of the same radio before it."""
        radio = self.by_esn.get(notice.esn)
        if radio is None:
            raise AssertionError(f"a notice of an unknown radio: {notice}")
        if notice.pending:
            radio.ended = None
        elif before and before.pending:
            radio.ended = before.suid
            if radio.pending and radio.pending.suid == before.suid:
                is_ending = radio.operation and radio.operation.kind in (LEAVE, WITHDRAW)
                if not is_ending and time.monotonic() - radio.pending_since < LAPSE - CLOCK_SLACK:
                    raise AssertionError(f"radio {radio.esn.hex()}: its pending registration has ended too early")
                radio.pending, radio.is_lapsing = None, False

    # When a server has gone

    def check_stored(self, rows):
        """rows: what it has left, as ledger.read_rows() gives it. Raises if something acknowledged is not there."""
        missing = [radio for radio in self.by_esn.values()
                   if not radio.may_be_stored(rows[radio.esn][0] if radio.esn in rows else None)]
        self.lost += len(missing)
        for radio in missing[:1]:
            raise Lost(f"{len(missing)} radios are not stored as acknowledged; the first: {radio.esn.hex()} "
                       f"{radio.state}, stored: {rows.get(radio.esn)}")
        if rows.keys() - self.by_esn.keys():
            raise AssertionError("the database has rows of unknown radios")

    def server_has_gone(self):
        """The next one asks for every radio, and knows of no pending registration."""
        for radio in self.by_esn.values():
            radio.pending, radio.ended, radio.is_lapsing, radio.availability = None, None, False, UNCONFIRMED
            if radio.operation:
                radio.operation.is_urgent = False
                if radio.operation.kind in (WITHDRAW, REPORT):
                    self.finish(radio)

    def notices(self):
        """What every application has to have been told last of each radio."""
        return {radio.esn: radio.notice() for radio in self.by_esn.values() if radio.notice()}

    def rows(self):
        return {radio.esn: (radio.state, radio.availability) for radio in self.by_esn.values() if radio.state}
