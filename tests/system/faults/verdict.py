# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Whether the records are those that the fault has to leave: no failure without its record, no record without one."""

import collections

from world import STARTED, UNOPENED, UNUSABLE

INSERT, WRITE, DELETE = "Database insert error", "Database write error", "Database delete error"
REPLACING = "Unable to update database"
UNSENT = "Network error: write message failed"
BROKEN = "Network error "
UNREAD = "QMRS Protocol error: invalid message received (1)"
OWN_REQUEST = "QMRS Protocol error: invalid message (2)"  # the server asks a radio of this host, which is itself
CONNECTED, DISCONNECTED = "Application connected", "Application disconnected"
REGISTERED, DEREGISTERED = ("registered with", "deregistered from")

# The records that belong to a scene, and those of its writes: each at most once.
OF_RADIOS = {"registration": [REGISTERED], "change": [REGISTERED], "deregistration": [DEREGISTERED],
             "visit": [REGISTERED, DEREGISTERED]}
OF_WRITES = {"registration": [INSERT, WRITE], "change": [WRITE], "deregistration": [DELETE],
             "visit": [INSERT, WRITE, DELETE]}
LAST_WRITE = {"registration": WRITE, "change": WRITE, "deregistration": DELETE, "visit": DELETE}
OF_APPLICATIONS = {"connection": [CONNECTED, DISCONNECTED], "leaving": [DISCONNECTED]}

SILENT = "EINTR", "short"  # tried again at once, or gone on with


def kind(record):
    for name in (INSERT, WRITE, DELETE, REPLACING, UNSENT, UNREAD, OWN_REQUEST, CONNECTED, DISCONNECTED, UNOPENED,
                 UNUSABLE, BROKEN):
        if record.startswith(name):
            return name
    for name in (REGISTERED, DEREGISTERED, STARTED):
        if name in record:
            return name
    return record


def verdict(case, outcome):
    """What is wrong, in words; nothing if all is right."""
    if outcome.hits == 0:
        return ""
    found = collections.Counter(map(kind, outcome.records))
    if case.scene in OF_RADIOS:
        wrong = of_radios(case, outcome, found)
    elif case.scene in OF_APPLICATIONS:
        wrong = of_applications(case, outcome, found)
    else:
        wrong = of_a_life(case, outcome, found)
    if not wrong and case.scene in (*OF_RADIOS, *OF_APPLICATIONS) and outcome.later:
        wrong = f"after the end of the fault: {outcome.later}"
    return wrong


def expect(found, exactly, at_most=()):
    """exactly: by record; at_most: once each."""
    rest = found - collections.Counter(exactly)
    missing = collections.Counter(exactly) - found
    more = rest - collections.Counter(at_most)
    if missing or more:
        return f"records: {dict(missing)} are missing, {dict(more)} are too many"
    return ""


def of_radios(case, outcome, found):
    fault, scene = case.fault, case.scene
    own = collections.Counter(OF_RADIOS[scene])
    notes = set(outcome.notes)
    if fault.target == "log":
        # A record that cannot be written is gone, and nothing else is.
        lossy = fault.error not in SILENT
        return bad(notes) or expect(found, {} if lossy else own, own if lossy else ())
    if fault.target == "net" and fault.error not in SILENT:
        if fault.call == "sendmsg":
            unacknowledged = {"not acknowledged"} if scene != "visit" else ()
            return bad(notes, unacknowledged) or expect(found, own + collections.Counter({UNSENT: 1}))
        if fault.call == "recvmsg":
            # One in which nobody asked for the datagram itself is silent, one that lasts is met again and again.
            lasts = fault.for_good
            return bad(notes) or expect(found, own, {UNREAD: found[UNREAD] if lasts else 1})
        if fault.call == "write":
            ends = collections.Counter({BROKEN: 1, DISCONNECTED: 1})
            return bad(notes, {"watcher disconnected"}) or expect(found, own + ends)
    if fault.target != "data" or (fault.error in SILENT and fault.call not in ("fcntl", "fdatasync")):
        return bad(notes) or expect(found, own)
    wrong = bad(notes) or expect(found, own, OF_WRITES[scene])
    if not wrong and outcome.settled and not outcome.stored and not found[LAST_WRITE[scene]]:
        wrong = "a row is not as it is to be, and no record says so"
    if not wrong and not outcome.settled and not fault.for_good:
        wrong = "the server was not at rest when the fault was over"
    return wrong


def bad(notes, expected=frozenset()):
    return "" if set(notes) == set(expected) else f"{set(notes) or 'nothing'} instead of {set(expected) or 'nothing'}"


def of_applications(case, outcome, found):
    fault = case.fault
    own = collections.Counter(OF_APPLICATIONS[case.scene])
    if fault.target == "log":
        lossy = fault.error not in SILENT
        return bad(outcome.notes) or expect(found, {} if lossy else own, own if lossy else ())
    if fault.target == "net" and fault.call == "fcntl":  # the connection is none
        return bad(outcome.notes, {"disconnected"}) or expect(found, {BROKEN: 1})
    if fault.target == "net" and fault.error not in SILENT and fault.call in ("write", "read"):
        notes = {"disconnected"} if case.scene == "connection" else ()
        return bad(outcome.notes, notes) or expect(found, own + collections.Counter({BROKEN: 1}))
    return bad(outcome.notes) or expect(found, own)


def of_a_life(case, outcome, found):
    fault = case.fault
    if case.scene.startswith("stop"):
        lossy = fault.target == "log" and fault.error not in SILENT
        return expect(found, {} if lossy else {"Service stopped": 1})
    if fault.target == "log":
        return ""  # that the server works is looked at; what it says of it is gone
    first = collections.Counter([REPLACING] if case.scene == "first-start" else [])
    if found[UNOPENED]:
        # Without its file, or without the plugin for it.
        allowed = fault.target in ("data", "other") and fault.error not in SILENT
        return expect(found, {UNOPENED: 1}) if allowed else "the database could not be opened"
    if found[UNUSABLE]:
        allowed = fault.target == "data" and (fault.error not in SILENT or fault.call in ("fcntl", "fdatasync"))
        return expect(found, {UNUSABLE: 1, REPLACING: 1}) if allowed else "the database could not be used"
    own = first + collections.Counter([STARTED])
    if "default settings" in outcome.notes and (fault.target != "settings" or fault.error in SILENT):
        return "the settings were not read"
    if fault.target == "net" and fault.call == "sendmsg" and fault.error not in SILENT:
        return expect(found, own + collections.Counter({UNSENT: 1}))
    unread = found[UNREAD] if fault.call == "recvmsg" and fault.target == "net" else 0
    failed = min(found[WRITE], 6) if fault.target == "data" and case.scene == "start" else 0
    return expect(found, own, {OWN_REQUEST: 1, UNREAD: unread, WRITE: failed})
