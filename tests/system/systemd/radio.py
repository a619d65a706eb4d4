# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A radio and an application in a few lines: radio.py register ESN | garbage | flood ESN | follow ESN

register: sends a basic registration for the ESN (16 hexadecimal digits) and waits for its acknowledgement.
garbage:  sends a registration whose length is wrong, which is logged and not answered.
flood:    60000 such registrations, none of which gets lost: after each hundred the ESN registers.
follow:   connects as an application and reads until a notice about the ESN arrives.
Exit code 0: it came. Both wires have the ESN as its eight bytes.
"""

import socket
import sys
import time

SERVER = ("127.0.0.1", 9361)


def header(opcode, esn, length):
    return b"QMRS" + bytes([1]) + esn + bytes([opcode, length, 0])


def register(esn):
    message = header(1, esn, 3) + bytes([2, 1, 3])
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as radio:
        radio.bind(("127.0.0.2", 0))
        radio.settimeout(1)
        for _ in range(20):
            try:
                radio.sendto(message, SERVER)
                if radio.recv(300) == header(2, esn, 1) + b"\0":
                    return 0
            except OSError:
                time.sleep(0.1)
    return 1


def garbage(_):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as radio:
        radio.sendto(header(1, bytes(8), 0), SERVER)
    return 0


def flood(esn):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as radio:
        for _ in range(600):
            for _ in range(100):
                radio.sendto(header(1, bytes(8), 0), SERVER)
            if register(esn) != 0:
                return 1
    return 0


def follow(esn):
    with socket.create_connection(SERVER, timeout=20) as application:
        seen = b""
        while esn not in seen:
            more = application.recv(4096)
            if not more:
                return 1
            seen += more
    return 0


if __name__ == "__main__":
    ACTIONS = {"register": register, "garbage": garbage, "flood": flood, "follow": follow}
    sys.exit(ACTIONS[sys.argv[1]](bytes.fromhex((sys.argv + ["", ""])[2])))
