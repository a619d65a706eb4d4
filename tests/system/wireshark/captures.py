#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""What Wireshark's dissector shows of the captures that are its examples.

usage: captures.py [<folder of the programs>]

Looks at those of the tree; with a folder at others, which tools/wireshark/record makes with the programs there. Exits
with 77 where there is no tshark, or where no such network can be made; with 1 there when CI is true.
"""

import itertools
import pathlib
import shutil
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "netns"))

from namespaces import SKIPPED, skipped  # noqa: E402
from shark import DISSECTOR, PATIENCE, Shark  # noqa: E402

FIRST = "ESN 0011AABB22CC3301"
EXTENDED = f"Extended registration, {FIRST}, SUID 12345/678/9ABC01"
NOTICE = f"Radio notice, {FIRST}, SUID 12345/678/9ABC01"
SLOW = "ESN 0011AABB22CC3304"

# What the story has: each message once, however often it was repeated; experts beside it.
RADIOS = {
    "radios": [
        f"{EXTENDED}, 2 services", f"Acknowledgement, {FIRST}",
        "Basic registration, ESN 0011AABB22CC3302, 1 service", "Acknowledgement, ESN 0011AABB22CC3302",
        "Extended registration, ESN F1123456789ABC03, SUID 12345/678/9ABC03, 0 services",
        "Acknowledgement, ESN F1123456789ABC03",
        f"{EXTENDED}, 2 services", f"Acknowledgement, {FIRST}",
        f"{EXTENDED}, pending, 1 service", f"Acknowledgement, {FIRST}",
        f"Deregistration, {FIRST}", "Deregistration by address",
    ],
    "discovery": [
        f"{EXTENDED}, 2 services", f"Acknowledgement, {FIRST}",
        f"Discovery request, {FIRST}", f"{EXTENDED}, 2 services", f"Acknowledgement, {FIRST}",
        f"Extended registration, {SLOW}, SUID 12345/678/9ABC04, 0 services",
        f"Extended registration, {SLOW}, SUID 12345/678/9ABC04, 0 services, sent again",
        f"Acknowledgement, {SLOW}",
    ],
    "bad": [
        "Rejected: QMRS Protocol error: invalid message received (1)",
        "Rejected: QMRS Protocol error: invalid opcode for protocol version",
        "Rejected: QMRS Protocol error: invalid message (2)", "Rejected: Protocol error: invalid length",
        f"{EXTENDED}, 2 services", f"Acknowledgement, {FIRST}", f"{EXTENDED}, 2 services", f"Acknowledgement, {FIRST}",
        f"{EXTENDED}, 255 services", f"Acknowledgement, {FIRST}",
    ],
}
APPLICATIONS = {
    "radios": [
        f"{NOTICE}, 10.77.0.5, registered, 2 services",
        "Radio notice, ESN 0011AABB22CC3302, SUID 00000/000/000000, 10.77.0.6, registered, 1 service",
        "Radio notice, ESN F1123456789ABC03, SUID 12345/678/9ABC03, 10.77.0.7, registered, 0 services",
        f"{NOTICE}, 10.77.0.8, registered, 2 services", f"{NOTICE}, 10.77.0.8, pending, 1 service",
        f"{NOTICE}, 10.77.0.8, registered, 2 services", f"{NOTICE}, 0.0.0.0, gone, 2 services",
        "Radio notice, ESN F1123456789ABC03, SUID 12345/678/9ABC03, 0.0.0.0, gone, 0 services",
    ],
    "discovery": [
        f"{NOTICE}, 10.77.0.5, registered, 2 services", f"Radio report, {FIRST}, 10.77.0.5",
        f"{NOTICE}, 10.77.0.5, unconfirmed, 2 services", f"{NOTICE}, 10.77.0.5, registered, 2 services",
    ],
    "bad": [
        f"{NOTICE}, 10.77.0.5, registered, 255 services",
        "Rejected: QMRA Protocol error: invalid message (2)",
        "Rejected: QMRA protocol version not supported.  Update connected applications",
        "Rejected: QMRA protocol error detected: invalid payload length",
        "Rejected: QMRA protocol error detected: invalid message (1)", "Ignored",
    ],
}
EXPERTS = {
    "radios": [], "discovery": [],
    "bad": ["qmrs.reject.header", "qmrs.reject.header", "qmrs.reject.version", "qmrs.reject.opcode",
            "qmrs.reject.deregistration_length", "qmrs.reject.registration_length", "qmrs.dropped_service",
            "qmrs.length_differs", "qmrs.beyond",
            "qmra.reject.header", "qmra.reject.version", "qmra.reject.length", "qmra.reject.type"],
}


def same(what, shown, expected):
    if shown != expected:
        raise AssertionError(f"{what}: shown is\n  {shown}\nexpected\n  {expected}")


def told(frames, protocol):
    infos = [frame.info for frame in frames.values() if frame.protocol == protocol]
    return [text for text, _ in itertools.groupby(text for info in infos for text in info.split("; "))]


def look_at_links(name, frames):
    """Each registration and its acknowledgement name each other, and so do a discovery request and its answer."""
    values = {number: frame.only().values for number, frame in frames.items() if frame.protocol == "QMRS"}
    for number, message in values.items():
        if message["opcode"] in ([1], [5]) and not message["reject"]:
            same(f"{name}, what frame {number} links to", values[message["response_in"][0]]["response_to"], [number])
        if message["opcode"] == [2] and not message["reject"]:
            same(f"{name}, what frame {number} links to", values[message["response_to"][0]]["response_in"], [number])
            same(f"{name}, times of frame {number}", [time > 0 for time in message["response_time"]], [True])
        if message["opcode"] == [4]:
            same(f"{name}, what frame {number} links to", values[message["answered_in"][0]]["answer_to"], [number])


def look(shark, folder):
    for name in ("radios", "discovery", "bad"):
        path = folder / f"{name}.pcap"
        frames = shark.look(path)
        same(f"radios in {name}", told(frames, "QMRS"), RADIOS[name])
        # The application may have had its table before its first bad message arrived, or after it.
        applications = told(frames, "QMRA")
        same(f"applications in {name}", sorted(applications) if name == "bad" else applications,
             sorted(APPLICATIONS[name]) if name == "bad" else APPLICATIONS[name])
        experts = [expert.name for frame in frames.values() for message in frame.messages for expert in message.experts]
        same(f"experts in {name}", experts, EXPERTS[name])
        look_at_links(name, frames)
        if path.stat().st_size > 50 * 1024 or path.read_bytes()[:4] != b"\xd4\xc3\xb2\xa1":
            raise AssertionError(f"{path} is large, or no plain capture")


def main():
    if len(sys.argv) > 2:
        print(__doc__, file=sys.stderr)
        return 2
    if not shutil.which("tshark"):
        return skipped("captures", "there is no tshark")
    with tempfile.TemporaryDirectory(prefix="quillmere-") as name:
        captures = DISSECTOR.parent / "captures"
        if len(sys.argv) == 2:
            captures = pathlib.Path(name) / "captures"
            command = [DISSECTOR.parent / "record", sys.argv[1], captures]
            recorded = subprocess.run(command, check=False, timeout=PATIENCE)
            if recorded.returncode != 0:
                return SKIPPED if recorded.returncode == SKIPPED else 1
        try:
            look(Shark(pathlib.Path(name)), captures)
        except AssertionError as failure:
            print(f"FAILED: {failure}", file=sys.stderr)
            return 1
    print("PASSED: three captures are shown as the stories that they are")
    return 0


if __name__ == "__main__":
    sys.exit(main())
