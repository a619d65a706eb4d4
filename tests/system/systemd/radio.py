# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A radio and an application in a few lines: radio.py register ESN | garbage | flood ESN | crowd ESN | follow ESN

register: sends a basic registration for the ESN (16 hexadecimal digits) and waits for its acknowledgement.
garbage:  sends a registration whose length is wrong, which is logged and not answered.
flood:    60000 such registrations, none of which gets lost: after each hundred the ESN registers.
crowd:    as register, for 2000 radios one after the other: the ESN and those that follow it.
follow:   connects as an application and reads until a notice about the ESN arrives.
Exit code 0: it came.
"""

import os
import socket
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
sys.dont_write_bytecode = True

from wire import PATIENCE, REGISTRATION, acknowledgement, basic_registration, datagram, take_notices  # noqa: E402

SERVER = ("127.0.0.1", 9361)
GARBAGE = datagram(bytes(8), REGISTRATION, version=1)  # without its count of services


def register(esn):
    message = basic_registration(esn, b"\x01\x03")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as radio:
        radio.bind(("127.0.0.2", 0))
        radio.settimeout(1)
        for _ in range(20):
            try:
                radio.sendto(message, SERVER)
                if radio.recv(300) == acknowledgement(esn, version=1):
                    return 0
            except OSError:
                time.sleep(0.1)
    return 1


def garbage(_):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as radio:
        radio.sendto(GARBAGE, SERVER)
    return 0


def flood(esn):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as radio:
        for _ in range(600):
            for _ in range(100):
                radio.sendto(GARBAGE, SERVER)
            if register(esn) != 0:
                return 1
    return 0


def crowd(esn):
    first = int.from_bytes(esn, "big")
    return 0 if all(register(number.to_bytes(8, "big")) == 0 for number in range(first, first + 2000)) else 1


def follow(esn):
    with socket.create_connection(SERVER, timeout=PATIENCE) as application:
        stream = bytearray()
        while not any(notice.esn == esn for notice in take_notices(stream)):
            more = application.recv(4096)
            if not more:
                return 1
            stream += more
    return 0


if __name__ == "__main__":
    ACTIONS = {"register": register, "garbage": garbage, "flood": flood, "crowd": crowd, "follow": follow}
    sys.exit(ACTIONS[sys.argv[1]](bytes.fromhex((sys.argv + ["", ""])[2])))
