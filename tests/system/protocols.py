#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""What is told of the protocols, against itself and the server: protocols.py QUILLMERE DOCS

docs/protocols.json has the form that its schema asks for; the tables and examples of docs/protocols.md are its own; and
its vectors are played against the server, which answers, tells and records what they say.
"""

import json
import pathlib
import re
import socket
import sys
import tempfile

import jsonschema

sys.dont_write_bytecode = True

import wire  # noqa: E402
from foreground import Server, wait_for  # noqa: E402
from wire import PATIENCE, free_port, receive_message  # noqa: E402

OTHER = bytes.fromhex("00000000000000FE")  # a radio beside the one of the vectors


def check(what, actual, expected):
    if actual != expected:
        sys.exit(f"{what}:\n  got       {actual!r}\n  should be {expected!r}")


class Description:
    """docs/protocols.json"""

    def __init__(self, folder):
        self.all = json.loads((folder / "protocols.json").read_text(encoding="utf-8"))
        schema = json.loads((folder / "protocols.schema.json").read_text(encoding="utf-8"))
        jsonschema.Draft202012Validator.check_schema(schema)
        jsonschema.Draft202012Validator(schema).validate(self.all)
        vectors = self.all["vectors"]
        every = [vector for kind in vectors.values() for vector in kind]
        check("names that are there twice", len({vector["name"] for vector in every}), len(every))
        self.vectors = {vector["name"]: vector for vector in vectors["qmrs"] + vectors["qmra"]}
        self.streams = vectors["streams"]

    def rejects(self, protocol):
        return {reject["name"]: reject for reject in self.all[protocol]["rejects"]}

    def bytes(self, name):
        return bytes.fromhex(self.vectors[name]["hex"])


def versions_text(versions):
    return f"{versions[0]} to {versions[-1]}" if len(versions) > 2 else ", ".join(map(str, versions))


def payload_text(fields):
    return ", ".join(f"`{field['name']}`" + (f" ({field['width']})" if isinstance(field["width"], int) else "")
                     for field in fields) or "none"


def tables_of(description):
    """What the document has to have, in its order: the columns that are compared, and their rows."""
    def fields(rows):
        return (("offset", "width", "name", "meaning"),
                [(str(row["offset"]), str(row["width"]), f"`{row['name']}`", row["about"]) for row in rows])

    def messages(protocol, code):
        return ((code, "from", "message", "versions", "payload"),
                [(str(message["code"]), message["from"], message["name"], versions_text(message["versions"]),
                  payload_text(message["payload"])) for message in description[protocol]["messages"]])

    def rejects(protocol, *more):
        return (("record", "severity", "event", "reason", *(heading for heading, _ in more)),
                [(f"`{reject['record']}`", reject["severity"], reject["event"], reject["reason"],
                  *(reject[key] for _, key in more)) for reject in description[protocol]["rejects"]])

    notice, report = description["qmra"]["messages"][:2]
    return [fields(description["qmrs"]["header"]),
            messages("qmrs", "opcode"),
            rejects("qmrs"),
            fields(description["qmra"]["header"]),
            messages("qmra", "type"),
            fields(notice["payload"]),
            (("value", "name"), [(str(row["value"]), row["name"]) for row in description["qmra"]["availabilities"]]),
            fields(report["payload"]),
            rejects("qmra", ("what is taken", "takes"))]


def cells(line):
    return tuple(cell.strip() for cell in line.strip().strip("|").split("|"))


def check_tables(description, text):
    tables = [[cells(line) for line in block.splitlines()] for block in re.findall(r"(?:^\|.*\n)+", text, re.M)]
    wanted = tables_of(description.all)
    check("tables of the document", len(tables), len(wanted))
    for (heading, rows), table in zip(wanted, tables):
        width = len(heading)
        check("a table's columns", table[0][:width], heading)
        check(f"the table of {heading[0]}", [row[:width] for row in table[2:]], rows)


def check_examples(description, text):
    shown = re.findall(r"^```hex (\S+)\n(.*?)^```", text, re.M | re.S)
    for name, content in shown:
        check(f"the example {name}", bytes.fromhex(content).hex().upper(), description.vectors[name]["hex"])
    names = {name for name, _ in shown}
    for protocol, code in (("qmrs", "opcode"), ("qmra", "type")):
        seen = {description.vectors[name]["fields"][code] for name in names
                if description.bytes(name)[:4] == description.all[protocol]["magic"].encode()}
        check(f"messages with an example of {protocol}", seen,
              {message["code"] for message in description.all[protocol]["messages"]})
    states = {description.vectors[name].get("state") for name in names} - {None}
    check("states with an example", states, {"pending"} | {row["name"] for row in
                                                           description.all["qmra"]["availabilities"]})


def field_of(data, field, known):
    width = known[field["width"]] if isinstance(field["width"], str) else field["width"]
    content = data[field["offset"]:field["offset"] + width]
    if field["type"] == "number":
        return int.from_bytes(content, "little")
    if field["type"] == "address":
        return ".".join(map(str, reversed(content)))
    return list(content) if field["type"] == "codes" else content.hex().upper()


def check_layout(description):
    """What is told of the fields is what the vectors' bytes say."""
    for protocol, code in (("qmrs", "opcode"), ("qmra", "type")):
        told = description.all[protocol]
        messages = {message["code"]: message["payload"] for message in told["messages"]}
        for vector in description.all["vectors"][protocol]:
            if "reject" in vector or "invalid" in vector:
                continue
            data, known = bytes.fromhex(vector["hex"]), {}
            for start, fields in ((0, told["header"]), (told["headerSize"], messages)):
                for field in fields if start == 0 else fields[known[code]]:
                    known[field["name"]] = field_of(data[start:], field, known)
            check(f"magic of {vector['name']}", bytes.fromhex(known.pop("magic")).decode(), told["magic"])
            known.pop("ignored", None)
            wanted = {name: value for name, value in vector["fields"].items()
                      if name not in [part["name"] for part in description.all["suid"]]}
            check(f"fields of {vector['name']}", known, wanted)
            if "suid" in known:
                check(f"parts of the SUID of {vector['name']}", parts_of(description, int(known["suid"], 16)),
                      [vector["fields"][part["name"]] for part in description.all["suid"]])


def parts_of(description, suid):
    parts = []
    for part in reversed(description.all["suid"]):
        parts.insert(0, suid % (1 << part["bits"]))
        suid >>= part["bits"]
    return parts


# Where the document says a limit.
LIMITS = {"largestDatagramBytes": "{} together", "services": "at most {}", "pendingSeconds": "lapses {} seconds after",
          "silenceHours": "silent for {} hours", "discoverySeconds": "{} seconds apart",
          "discoveryUnreachableSeconds": "requests go on at least {} seconds apart",
          "minimumDiscoveryPeriodSeconds": "`minimumDiscoveryPeriod` seconds ({}) apart",
          "partialMessageMilliseconds": "is waited for {} ms", "unreadMebibytes": "while {} MiB wait unread"}


def check_numbers(description, text, readme):
    prose = " ".join(text.split())
    for protocol in ("qmrs", "qmra"):
        told = description.all[protocol]
        for limit, value in told["limits"].items():
            if LIMITS[limit].format(value) not in prose:
                sys.exit(f"the document does not say '{LIMITS[limit].format(value)}'")
        if f"| `{told['setting']}` | {told['port']} |" not in readme:
            sys.exit(f"the README does not know {told['setting']} {told['port']}")


def check_names(description):
    for protocol, kinds in (("qmrs", ["qmrs"]), ("qmra", ["qmra", "streams"])):
        for vector in [vector for kind in kinds for vector in description.all["vectors"][kind]]:
            for outcome in [vector, *vector.get("outcome", [])]:
                if outcome.get("reject") and vector["from"] != "server":
                    description.rejects(protocol)[outcome["reject"]]
                if "notice" in outcome:
                    check(f"notice of {vector['name']}", "state" in description.vectors[outcome["notice"]], True)


class Scene:
    """The server, an application, and a radio at an address of its own."""

    def __init__(self, server, description, radio_port, application_port):
        self.server = server
        self.description = description
        self.application_port = application_port
        self.application = self.connect()
        self.radio = self.bind("127.0.0.2", radio_port)
        self.other = self.bind("127.0.0.3", radio_port)

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.application_port), PATIENCE)

    @staticmethod
    def bind(address, radio_port):
        radio = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        radio.settimeout(PATIENCE)
        radio.bind((address, 0))
        radio.connect(("127.0.0.1", radio_port))
        return radio

    def register(self, what, datagram, answer):
        self.radio.send(datagram)
        check(f"answer to {what}", self.radio.recv(300).hex().upper(), answer)

    def notice(self):
        """The next, but for the other radio's."""
        while True:
            data = receive_message(self.application)
            if data[8:16] != OTHER:
                return data

    def let_it_read(self):
        """What has been sent before is read by the server when it has answered twice."""
        for _ in range(2):
            self.other.send(wire.basic_registration(OTHER))
            self.other.recv(300)

    def faults(self):
        lines = self.server.event_log.read_text(encoding="utf-8").splitlines(keepends=True)
        records = [json.loads(line) for line in lines if line.endswith("\n")]
        return [(record["type"], record["id"], record["message"]) for record in records
                if record["type"] in ("warning", "error")]

    def are_recorded(self, what, rejects):
        wanted = [(reject["severity"], int(reject["event"], 16), reject["record"]) for reject in rejects]
        wait_for(lambda: len(self.faults()) >= len(wanted), f"the records of {what}")
        check(f"records of {what}", self.faults(), wanted)


def story(scene):
    """The examples of the document, one after the other."""
    vectors, data = scene.description.vectors, scene.description.bytes
    scene.register("a registration", data("extended-registration"), vectors["acknowledgement"]["hex"])
    check("notice", scene.notice(), data("notice-registered"))
    with scene.connect() as second:
        check("table", receive_message(second), data("notice-registered"))
    scene.application.sendall(data("ignored") + data("report"))
    check("notice of a report", scene.notice(), data("notice-unconfirmed"))
    # A host cannot be server and radio at the same port: the discovery request comes back to the server, which takes
    # none from a radio. It is the only one.
    scene.are_recorded("the discovery request", [scene.description.rejects("qmrs")["opcode"]])
    scene.register("a pending registration", data("pending-registration"), vectors["acknowledgement"]["hex"])
    check("pending notice", scene.notice(), data("notice-pending"))
    scene.radio.send(data("deregistration"))
    check("a pending registration is no answer", scene.notice(), data("notice-unconfirmed"))
    scene.register("a pending registration", data("pending-registration"), vectors["acknowledgement"]["hex"])
    check("pending notice", scene.notice(), data("notice-pending"))
    # What becomes of the confirmed registration is not told before the pending one has ended.
    scene.register("a confirmed one beside it", data("extended-registration"), vectors["acknowledgement"]["hex"])
    scene.radio.send(data("deregistration"))
    check("notice after the pending one", scene.notice(), data("notice-registered"))
    scene.radio.send(data("deregistration"))
    check("notice of a deregistration", scene.notice(), data("notice-gone"))
    scene.register("a pending registration alone", data("pending-registration"), vectors["acknowledgement"]["hex"])
    check("pending notice", scene.notice(), data("notice-pending"))
    scene.radio.send(data("deregistration"))
    check("notice of one that was never confirmed", scene.notice(), data("notice-gone-never-confirmed"))
    two_at_one_address(scene)


def two_at_one_address(scene):
    """A radio that has both registrations there loses the pending one only."""
    vectors, data = scene.description.vectors, scene.description.bytes
    second = "registration-without-an-esn"
    scene.register("a registration", data("extended-registration"), vectors["acknowledgement"]["hex"])
    scene.register("a pending one beside it", data("pending-registration"), vectors["acknowledgement"]["hex"])
    scene.register("another radio's", data(second), vectors[second]["answer"])
    told = [wire.split_notice(scene.notice()) for _ in range(4)]
    check("pending and availability", [(notice.pending, notice.availability) for notice in told],
          [(False, 3), (True, 3), (False, 3), (False, 3)])
    check("who has the address", [(notice.esn.hex().upper(), notice.address) for notice in told[2:]],
          [(esn, wire.address_number("127.0.0.2"))
           for esn in (vectors["extended-registration"]["fields"]["esn"], vectors[second]["registers"]["esn"])])
    for answer in ("acknowledgement", "acknowledgement-of-a-made-esn"):
        esn = bytes.fromhex(vectors[answer]["fields"]["esn"])
        scene.radio.send(wire.datagram(esn, wire.DEREGISTRATION))
        check("availability of the one that leaves", scene.notice()[28], wire.DEREGISTERED)


def come(scene):
    scene.register("a registration", scene.description.bytes("extended-registration"),
                   scene.description.vectors["acknowledgement"]["hex"])
    check("notice", scene.notice(), scene.description.bytes("notice-registered"))


def go(scene):
    scene.radio.send(scene.description.bytes("deregistration"))
    check("notice of a deregistration", scene.notice(), scene.description.bytes("notice-gone"))


def play_datagram(scene, vector):
    name, datagram = vector["name"], bytes.fromhex(vector["hex"])
    if "registers" in vector:
        kept = vector["registers"]
        scene.register(name, datagram, vector["answer"])
        check(f"notice of {name}", wire.split_notice(scene.notice()),
              wire.Notice(bytes.fromhex(kept["esn"]), bytes.fromhex(kept["suid"]), kept["pending"],
                          wire.address_number("127.0.0.2"), wire.REGISTERED, bytes(kept["services"])))
        if int(kept["esn"], 16):
            scene.radio.send(wire.datagram(bytes.fromhex(kept["esn"]), wire.DEREGISTRATION))
            check(f"availability after {name}", scene.notice()[28], wire.DEREGISTERED)
        else:  # only another radio can take its address
            scene.radio.send(scene.description.bytes("extended-registration"))
            scene.radio.recv(300)
            check(f"who has the address after {name}", [scene.notice()[8:16].hex().upper() for _ in range(2)],
                  [kept["esn"], scene.description.vectors["extended-registration"]["fields"]["esn"]])
            go(scene)
    elif "deregisters" in vector:
        come(scene)
        scene.radio.send(datagram)
        check(f"notice of {name}", scene.notice(), scene.description.bytes("notice-gone"))
    else:
        scene.radio.send(datagram)
        scene.are_recorded(name, [scene.description.rejects("qmrs")[vector["reject"]]])


def is_whole(data):
    """Whether it ends where a message does."""
    while len(data) >= 8 and data[:4] == b"QMRA":
        data = data[8 + int.from_bytes(data[6:8], "little"):]
    return not data


def play_stream(scene, stream):
    come(scene)
    rejects = [outcome["reject"] for outcome in stream["outcome"] if "reject" in outcome]
    reports = [outcome["reports"] for outcome in stream["outcome"] if "reports" in outcome]
    with scene.connect() as application:
        sent = b""
        for piece in stream["pieces"]:
            data = bytes.fromhex(piece["hex"])
            sent += data
            if piece.get("late"):
                wait_for(scene.faults, "the end of the server's patience")
            application.sendall(data)
            if is_whole(sent):  # the rest of a message must not be late
                scene.let_it_read()
        scene.let_it_read()
        scene.are_recorded(stream["name"], [scene.description.rejects("qmra")[reject] for reject in rejects])
    if scene.description.vectors["report"]["reports"] in reports:
        check(f"notice of {stream['name']}", scene.notice(), scene.description.bytes("notice-unconfirmed"))
    go(scene)


def play(scene):
    scene.server.forget_records()  # of the first start
    story(scene)
    scene.server.forget_records()
    datagrams = [vector for vector in scene.description.all["vectors"]["qmrs"] if vector["from"] == "radio"]
    messages = [dict(vector, pieces=[vector], outcome=[vector])
                for vector in scene.description.all["vectors"]["qmra"] + scene.description.streams
                if vector["from"] == "application" and "hex" in vector]
    streams = [stream for stream in scene.description.streams if stream["from"] == "application"]
    for vector in datagrams:
        play_datagram(scene, vector)
        scene.server.forget_records()
    for stream in messages + streams:
        play_stream(scene, stream)
        scene.server.forget_records()
    print(f"as described: {len(datagrams)} datagrams, {len(messages)} messages and {len(streams)} streams")


def radio_without_ipv4(scene, radio_port):
    """Is acknowledged, but no application can reach it."""
    with socket.socket(socket.AF_INET6, socket.SOCK_DGRAM) as radio:
        radio.settimeout(PATIENCE)
        try:
            radio.bind(("::1", 0))
        except OSError as error:
            print(f"left out, a radio without an IPv4 address: {error}")
            return
        radio.sendto(scene.description.bytes("extended-registration"), ("::1", radio_port))
        check("acknowledgement without IPv4", radio.recv(300), scene.description.bytes("acknowledgement"))
        told = wire.split_notice(scene.notice())
        check("what is told of a radio without IPv4", (told.address, told.availability), (0, wire.REGISTERED))
        record = f"Radio {OTHER.hex().upper()} deregistered from unexpected address ::1 [ignored]"
        wait_for(lambda: record in scene.server.records(), "the record of the table's first radio")


def main():
    program, docs = sys.argv[1:]
    description = Description(pathlib.Path(docs))
    text = (pathlib.Path(docs) / "protocols.md").read_text(encoding="utf-8")
    check_tables(description, text)
    check_examples(description, text)
    check_layout(description)
    check_names(description)
    check_numbers(description, text, (pathlib.Path(docs).parent / "README.md").read_text(encoding="utf-8"))
    with tempfile.TemporaryDirectory() as folder:
        radio_port, application_port = free_port(socket.SOCK_DGRAM), free_port(socket.SOCK_STREAM)
        server = Server(program, pathlib.Path(folder),
                        f"radioRegistrationPort={radio_port}\napplicationPort={application_port}\n"
                        "minimumDiscoveryPeriod=86400\n")
        try:
            server.start()
            scene = Scene(server, description, radio_port, application_port)
            play(scene)
            radio_without_ipv4(scene, radio_port)
        finally:
            server.kill()


if __name__ == "__main__":
    main()
