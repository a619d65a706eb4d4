# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Calls the codec of the Python examples: a line in, a line out, as codec.py tells."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[3] / "examples" / "python"))

import application  # noqa: E402
import radio  # noqa: E402


def codes(text):
    return bytes(map(int, text.split(","))) if text != "-" else b""


def digits(data):
    return data.hex().upper()


def stream(*pieces):
    outcomes, received = [], bytearray()
    try:
        for piece in pieces:
            received += bytes.fromhex(piece)
            for notice in application.take_notices(received):
                services = ",".join(map(str, notice.services)) or "-"
                outcomes.append(f"notice {digits(notice.esn)} {digits(notice.suid)} {notice.pending} {notice.address} "
                                f"{notice.availability} {services} {notice.state()}")
    except application.Lost:
        outcomes.append("lost")
    return "; ".join(outcomes)


def datagram(data):
    message = radio.decode(bytes.fromhex(data.replace("-", "")))
    if message is None:
        return "invalid"
    name = {radio.ACKNOWLEDGEMENT: "acknowledgement", radio.DISCOVERY_REQUEST: "discovery request"}[message.opcode]
    return f"{name} {digits(message.esn)}"


def registration(esn, suid, pending, services):
    return digits(radio.registration(bytes.fromhex(esn), bytes.fromhex(suid), int(pending), codes(services)))


ANSWERS = {
    "registration": registration,
    "deregistration": lambda esn: digits(radio.deregistration(bytes.fromhex(esn))),
    "datagram": datagram,
    "report": lambda esn, address: digits(application.report(bytes.fromhex(esn), address)),
    "stream": stream,
}

for line in sys.stdin:
    command, *words = line.split()
    print(ANSWERS[command](*words), flush=True)
