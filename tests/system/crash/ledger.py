# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""What the server has promised of each radio, and whether a database keeps it."""

import collections
import contextlib
import ipaddress
import pathlib
import shutil
import sqlite3

from wire import DEREGISTERED, DEREGISTRATION, EXTENDED_REGISTRATION, REGISTERED, split_datagram

class State(collections.namedtuple("State", "suid address services version")):
    """What a row holds of a registration. Where a state is None the radio has no row."""

    def __repr__(self):
        address = ipaddress.IPv4Address(self.address)
        return f"[{self.suid.hex()} {address} services {list(self.services)} version {self.version}]"


# A step in a radio's life: its state, the SUID that notices then show, and whether a datagram of ours made it
# (otherwise the row was found, and the start-up review may change its availability).
Step = collections.namedtuple("Step", "state suid is_sent")

NEVER_SEEN = Step(None, None, False)


def copy_database(source, target):
    """Of a server that is gone: it has to recover the database itself. Returns whether there is a journal to do it with."""
    has_journal = False
    for suffix in ("", "-journal", "-wal"):
        name, copied = pathlib.Path(f"{source}{suffix}"), pathlib.Path(f"{target}{suffix}")
        if name.exists():
            shutil.copyfile(name, copied)
            has_journal = has_journal or (suffix != "" and name.stat().st_size > 0)
        else:
            copied.unlink(missing_ok=True)
    return has_journal


def read_rows(path):
    """Opens the database, which recovers it if need be; yields its rows by ESN as (state, availability)."""
    with contextlib.closing(sqlite3.connect(path)) as database:
        database.execute("PRAGMA synchronous=OFF")  # it is a copy
        for check, sound in (("integrity_check", [("ok",)]), ("foreign_key_check", [])):
            found = database.execute(f"PRAGMA {check}").fetchall()
            if found != sound:
                raise AssertionError(f"PRAGMA {check}: {found}")
        services = collections.defaultdict(bytearray)
        for identifier, service in database.execute("SELECT subscriber_id, service FROM supported_services "
                                                    "ORDER BY rowid"):
            services[identifier].append(service)
        rows = database.execute("SELECT id, esn, suid, ip_address, protocol_version, availability FROM subscribers")
        return {esn: (State(suid, address, bytes(services[identifier]), version), availability)
                for identifier, esn, suid, address, version, availability in rows}


class Life:
    """The steps of one radio: all before the promised one are over, all after it may have happened or not."""

    def __init__(self, step):
        self.steps = [step]
        self.promised = 0

    def latest(self):
        return self.steps[-1]

    def add(self, state, suid):
        self.steps.append(Step(state, suid, True))
        return self, len(self.steps) - 1

    def promise(self, index):
        self.promised = max(self.promised, index)

    def allows(self, row):
        """row: None, or state and availability."""
        return any(self._is(index, row) for index in range(self.promised, len(self.steps)))

    def _is(self, index, row):
        step = self.steps[index]
        if row is None or step.state is None:
            return row is None and step.state is None
        # A registration that nobody has been told of may be stored without its final availability.
        unfinished = not step.is_sent or index > self.promised
        return row[0] == step.state and (row[1] == REGISTERED or unfinished)


class Ledger:
    """Is told what is sent, in order, and what comes back. Each registration has to have a SUID of its own."""

    def __init__(self, rows=None):
        self.lives = {}
        self.holders = {}  # of addresses, once all is handled that was sent
        self.awaited = collections.defaultdict(collections.deque)  # ESN: what each registration in flight changes
        self.acknowledged_count = self.announced_count = 0
        for esn, (state, availability) in (rows or {}).items():
            life = self.lives[esn] = Life(Step(state, state.suid, False))
            if availability == DEREGISTERED:
                life.add(None, state.suid)  # the start-up review removes it
            else:
                self.holders[state.address] = esn

    def life(self, esn):
        return self.lives.setdefault(esn, Life(NEVER_SEEN))

    def sent(self, source, data):
        message = split_datagram(data)
        if message.opcode == EXTENDED_REGISTRATION:
            pending = message.version == 3 and message.payload[7]
            changes = [] if pending else self._register(source, message)
            self.awaited[message.esn].append(changes)
        elif message.opcode == DEREGISTRATION:
            holder = self.holders.get(source)
            if holder and (message.esn == holder or not any(message.esn)):
                self._deregister(source)

    def _register(self, source, message):
        changes = []
        if source in self.holders and self.holders[source] != message.esn:
            changes.append(self._deregister(source))
        life = self.life(message.esn)
        if life.latest().state:
            del self.holders[life.latest().state.address]
        self.holders[source] = message.esn
        suid = message.payload[:7]
        changes.append(life.add(State(suid, source, message.payload[9:], message.version), suid))
        return changes

    def _deregister(self, source):
        life = self.life(self.holders.pop(source))
        return life.add(None, life.latest().suid)

    def acknowledged(self, data):
        message = split_datagram(data)
        if not self.awaited[message.esn]:
            raise AssertionError(f"{message.esn.hex()} was acknowledged without having registered")
        for life, index in self.awaited[message.esn].popleft():
            life.promise(index)
        self.acknowledged_count += 1

    def announced(self, notice):
        if notice.pending:
            return
        life = self.life(notice.esn)
        gone = notice.availability == DEREGISTERED
        for index, step in enumerate(life.steps):
            shown = step.state is None if gone else step.state and (
                (step.state.address, step.state.services) == (notice.address, notice.services))
            if step.suid == notice.suid and shown:
                life.promise(index)
                self.announced_count += 1
                return
        # A radio that was only ever pending is announced as gone, with no identity, when it ends.
        if not (gone and life.steps == [NEVER_SEEN]):
            raise AssertionError(f"announced, but never sent: {notice}")

    def broken(self, rows):
        """The promises that these rows break, in words."""
        for esn in self.lives.keys() | rows.keys():
            life, row = self.life(esn), rows.get(esn)
            if not life.allows(row):
                later = len(life.steps) - 1 - life.promised
                yield (f"radio {esn.hex()}: promised {life.steps[life.promised].state}, "
                       f"and {later} later steps were sent; the database has {row}")
