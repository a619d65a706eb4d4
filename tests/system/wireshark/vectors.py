#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""What Wireshark's dissector shows of each message of docs/protocols.json.

usage: vectors.py <protocols.json>

tshark reads captures that are made here. Exits with 77 where there is no tshark, with 1 there when CI is true.
"""

import json
import pathlib
import shutil
import sys
import tempfile

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "netns"))

from capture import Capture  # noqa: E402
from namespaces import skipped  # noqa: E402
from shark import CHAT, NOTE, Expert, Shark  # noqa: E402
from stories import links, sizes  # noqa: E402

SERVER = "10.0.0.1"
INVALID = "Invalid: no server sends this"
DROPPED = Expert("qmrs.dropped_service", "The server drops this service", CHAT)
DIFFERS = Expert("qmrs.length_differs", "The server goes by the datagram's size", NOTE)
BEYOND = Expert("qmrs.beyond", "The server cuts off what is beyond 280 bytes", NOTE)
# What the description has no example of, and no server sends either.
MORE = {
    "qmrs": {
        "acknowledgement-with-another-result": "514D5253030011AABB22CC33DD02010001",
        "acknowledgement-of-two-bytes": "514D5253030011AABB22CC33DD0202000000",
    },
    "qmra": {"notice-in-version-3": "514D5241030116000011AABB22CC33DD123456789ABCDE000100A8C00300"},
}
LINKS = ("response_in", "response_to", "response_time", "made_esn", "reject")
PAYLOAD_OF_A_REGISTRATION = ("suid", "wacn", "system", "unit", "pending", "service_count", "services")


def check(condition, text):
    if not condition:
        raise AssertionError(text)


def same(what, shown, expected):
    check(shown == expected, f"{what}: shown is {shown}, expected {expected}")


class Vectors:
    """Puts messages into a capture, and knows what is to be seen of each."""

    def __init__(self, description, radio_port=9361, application_port=9361):
        self.description = description
        self.radio_port, self.application_port = radio_port, application_port
        self.capture = Capture()
        self.checks = []
        self.ends = 0

    def expect(self, frame, judge):
        self.checks.append((frame, judge))

    def judge(self, frames):
        for frame, judge in self.checks:
            judge(frames, frame)

    def peer(self, port=None):
        """Somebody else each time: nothing links one vector with another."""
        self.ends += 1
        return f"10.1.{self.ends // 200}.{self.ends % 200 + 1}", port or 61000 + self.ends

    # What is to be seen

    def rejects(self, protocol, name):
        reject = next(each for each in self.description[protocol]["rejects"] if each["name"] == name)
        severity = reject["severity"].capitalize()
        return Expert(f"{protocol}.reject.{name.replace('-', '_')}", reject["record"], severity)

    def values(self, protocol, vector):
        values = {"magic": [self.description[protocol]["magic"]]}
        for name, value in vector["fields"].items():
            if value != []:
                values[name] = value if isinstance(value, list) else [value]
        if vector.get("ignored") and vector["fields"]["length"]:
            values["ignored"] = [vector["hex"][16:]]
        return values

    def experts(self, protocol, vector, size):
        """In no order."""
        experts = []
        if "reject" in vector:
            experts.append(self.rejects(protocol, vector["reject"]))
        elif "invalid" in vector:
            experts.append(Expert(f"{protocol}.invalid", INVALID, NOTE))
        elif protocol == "qmrs":
            kept = self.description["services"]["kept"]
            experts += [DROPPED for code in vector["fields"].get("services", []) if code not in kept]
            experts += [DIFFERS] if vector["fields"]["length"] != min(size, 280) - 16 else []
        return sorted(experts + ([BEYOND] if protocol == "qmrs" and size > 280 else []))

    def look_at(self, protocol, vector, message):
        name = f"{protocol} {vector['name']} from {vector['from']}"
        same(name, message.protocol, protocol)
        same(name, sorted(message.experts), self.experts(protocol, vector, len(vector["hex"]) // 2))
        record = [self.rejects(protocol, vector["reject"]).text] if "reject" in vector else []
        same(name, message.values.get("reject", []), record)
        if "fields" in vector:
            inside = PAYLOAD_OF_A_REGISTRATION if vector.get("reject") == "registration-length" else ()
            same(name, message.without(*LINKS, *inside), self.values(protocol, vector))

    # What is sent

    def datagrams(self, radio_port=None, only=lambda _: True):
        for vector in filter(only, self.description["vectors"]["qmrs"]):
            radio, server = self.peer(radio_port), (SERVER, self.radio_port)
            ends = (radio, server) if vector["from"] == "radio" else (server, radio)
            frame = self.capture.datagram(*ends, bytes.fromhex(vector["hex"]))
            self.expect(frame, lambda frames, frame, vector=vector: self.look_at_datagram(frames[frame], vector))
            if "answer" in vector:
                self.capture.datagram(server, radio, bytes.fromhex(vector["answer"]))
                self.expect(frame, lambda frames, frame, vector=vector: self.look_at_answer(frames, frame, vector))

    def look_at_datagram(self, frame, vector):
        if not vector["hex"]:
            same("an empty datagram, which tshark gives to nobody", frame.messages, [])
            return
        self.look_at("qmrs", vector, frame.only())
        if "reject" in vector:
            same(vector["name"], frame.info, f"Rejected: {self.rejects('qmrs', vector['reject']).text}")

    @staticmethod
    def look_at_answer(frames, frame, vector):
        registration, answer = frames[frame].only().values, frames[frame + 1].only().values
        same(vector["name"], registration["response_in"], [frame + 1])
        same(vector["name"], answer["response_to"], [frame])
        same(vector["name"], answer["response_time"], [0.001])
        esn = vector["registers"]["esn"]
        same(vector["name"], registration["made_esn"], [esn] if esn != vector["fields"]["esn"] else [])
        check(f"ESN {esn}" in frames[frame].info, f"{vector['name']}: {frames[frame].info}")
        same(vector["name"], ", pending" in frames[frame].info, vector["registers"]["pending"])

    def expect_none(self, port, data):
        frame = self.capture.datagram(self.peer(), (SERVER, port), data)
        self.expect(frame, lambda frames, frame: same(f"{data} at port {port}", frames[frame].messages, []))

    def connect(self):
        application, server = self.peer(), (SERVER, self.application_port)
        connection = self.capture.connection(application, server)
        return lambda sender, data: connection.send(server if sender == "server" else application, data)

    def messages(self):
        for vector in self.description["vectors"]["qmra"]:
            frame = self.connect()(vector["from"], bytes.fromhex(vector["hex"]))
            self.expect(frame, lambda frames, frame, vector=vector:
                        self.look_at("qmra", vector, frames[frame].only()))

    def messages_in_pieces(self):
        """All that do not stop whoever reads, one behind the other, in pieces that divide them anywhere."""
        for sender in ("application", "server"):
            vectors = [vector for vector in self.description["vectors"]["qmra"] if vector["from"] == sender
                       and vector.get("reject") != "header" and vector["name"] not in MORE["qmra"]]
            self.pieces(sender, vectors, 13)
            self.pieces(sender, vectors, 1000)

    def pieces(self, sender, vectors, size):
        stream = b"".join(bytes.fromhex(vector["hex"]) for vector in vectors)
        send = self.connect()
        sent = [send(sender, stream[at:at + size]) for at in range(0, len(stream), size)]

        def judge(frames, _):
            shown = [message for frame in sent for message in frames[frame].messages]
            same(f"messages of {sender} in pieces of {size}", len(shown), len(vectors))
            for vector, message in zip(vectors, shown):
                self.look_at("qmra", vector, message)
            for frame in sent:  # each is told of
                texts = [text for text in frames[frame].info.split("; ") if "[TCP segment" not in text]
                same(frames[frame].info, len(texts), len(frames[frame].messages))
        self.expect(sent[0], judge)

    def streams(self):
        """But for those in which time passes: it is the server's."""
        for stream in self.description["vectors"]["streams"]:
            if not any(piece.get("late") for piece in stream["pieces"]):
                send = self.connect()
                sent = [send(stream["from"], bytes.fromhex(piece["hex"])) for piece in stream["pieces"]]
                self.expect(sent, lambda frames, sent, stream=stream: self.look_at_stream(stream, [
                    message for frame in sent for message in frames[frame].messages]))

    def look_at_stream(self, stream, shown):
        told = [message for message in shown if message.experts or message.values.get("esn")]
        same(stream["name"], len(told), len(stream["outcome"]))
        for message, outcome in zip(told, stream["outcome"]):
            if "reports" in outcome:
                reported = {name: [value] for name, value in outcome["reports"].items()}
                same(stream["name"], message.without("magic", "version", "type", "length"), reported)
                same(stream["name"], message.values["type"], [2])
            elif "reject" in outcome:
                same(stream["name"], message.experts, [self.rejects("qmra", outcome["reject"])])
            elif "lost" in outcome:
                same(stream["name"], message.experts, [Expert("qmra.invalid", INVALID, NOTE)])
            else:
                vectors = self.description["vectors"]["qmra"]
                self.look_at("qmra", next(each for each in vectors if each["name"] == outcome["notice"]), message)


def says_server(vector):
    data = bytes.fromhex(vector["hex"])
    return len(data) >= 16 and data[:4] == b"QMRS" and data[13] in (2, 4)


def vectors_at(shark, folder, description, radio_port, application_port, *options):
    vectors = Vectors(description, radio_port, application_port)
    vectors.datagrams()
    # Where both have the same port, the opcode tells who speaks; what is said against it is not found out.
    vectors.datagrams(radio_port, lambda vector: says_server(vector) == (vector["from"] == "server"))
    vectors.messages()
    vectors.messages_in_pieces()
    vectors.streams()
    if radio_port != 9361:
        vectors.expect_none(9361, b"somebody else's port by now")
    vectors.capture.write(folder / "vectors.pcap")
    vectors.judge(shark.look(folder / "vectors.pcap", *options))
    return len(vectors.checks)


def recognised(shark, folder, description):
    """At ports that nobody has named, by what the messages begin with; the opcode and the type tell who speaks."""
    vectors = Vectors(description, 47001, 47002)
    vectors.datagrams(None, lambda vector: "answer" in vector)
    send = vectors.connect()
    report = next(vector for vector in description["vectors"]["qmra"] if vector["name"] == "report")
    notice = next(vector for vector in description["vectors"]["qmra"] if vector["name"] == "notice-registered")
    for vector in (report, notice):
        data = bytes.fromhex(vector["hex"])
        vectors.expect(send(vector["from"], data), lambda frames, frame, vector=vector:
                       vectors.look_at("qmra", vector, frames[frame].only()))
    # What began with a message goes on as the same protocol.
    vectors.expect(send("application", b"HELLO\r\n\r"), lambda frames, frame:
                   same("greeting", frames[frame].only().experts, [vectors.rejects("qmra", "header")]))
    for data in (b"something else of its own", b"QM", b"QMRS, not a whole"[:15]):
        vectors.expect_none(47001, data)
    vectors.capture.write(folder / "recognised.pcap")
    vectors.judge(shark.look(folder / "recognised.pcap"))


def fields_and_names(shark, description):
    rows = [line.split("\t") for line in shark.run("-G", "fields").splitlines()]
    fields = {row[2]: row for row in rows if row[0] == "F" and row[2].startswith(("qmrs.", "qmra."))}
    types = {"text": "FT_STRING", "bytes": "FT_BYTES", "esn": "FT_BYTES", "suid": "FT_BYTES", "address": "FT_IPv4",
             "codes": "FT_UINT8"}
    for protocol in ("qmrs", "qmra"):
        messages = description[protocol]["messages"]
        for field in description[protocol]["header"] + [field for message in messages for field in message["payload"]]:
            kind = types.get(field["type"]) or f"FT_UINT{8 * field['width']}"
            same(f"{protocol}.{field['name']}", fields[f"{protocol}.{field['name']}"][3], kind)
        for part in description["suid"]:
            _, _, _, kind, _, _, mask = fields[f"{protocol}.{part['name']}"][:7]
            bits = bin(int(mask, 16)).count("1") or int(kind.removeprefix("FT_UINT"))
            same(f"bits of {protocol}.{part['name']}", bits, part["bits"])
        for reject in description[protocol]["rejects"]:
            if reject["name"] != "timeout":  # of which a capture knows nothing
                name = f"{protocol}.reject.{reject['name'].replace('-', '_')}"
                same(name, fields[name][1], reject["record"])

    names = {}
    for line in shark.run("-G", "values").splitlines():
        if line.startswith(("V\tqmrs.", "V\tqmra.")):
            _, field, value, text = line.split("\t")
            names.setdefault(field, {})[int(value, 0)] = text
    same("names", names, {
        "qmrs.opcode": {message["code"]: message["name"] for message in description["qmrs"]["messages"]},
        "qmra.type": {message["code"]: message["name"] for message in description["qmra"]["messages"]},
        "qmra.availability": {each["value"]: each["name"] for each in description["qmra"]["availabilities"]},
    })


def main():
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    if not shutil.which("tshark"):
        return skipped("Wireshark's dissector", "there is no tshark")
    description = json.loads(pathlib.Path(sys.argv[1]).read_text(encoding="utf-8"))
    for protocol, more in MORE.items():
        description["vectors"][protocol] += [{"name": name, "from": "server", "hex": data, "invalid": True}
                                             for name, data in more.items()]
    with tempfile.TemporaryDirectory(prefix="quillmere-") as name:
        folder = pathlib.Path(name)
        shark = Shark(folder)
        try:
            fields_and_names(shark, description)
            count = vectors_at(shark, folder, description, 9361, 9361)
            vectors_at(shark, folder, description, 5000, 5001, "-o", "qmrs.port:5000", "-o", "qmra.port:5001")
            recognised(shark, folder, description)
            links(shark, folder)
            sizes(shark, folder)
        except AssertionError as failure:
            print(f"FAILED: {failure}", file=sys.stderr)
            return 1
    print(f"PASSED: {count} messages and streams are shown as they are")
    return 0


if __name__ == "__main__":
    sys.exit(main())
