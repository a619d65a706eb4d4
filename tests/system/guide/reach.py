# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Whether a server is reached from an address of this host: reach.py udp|tcp FROM SERVER

udp: a radio registers. tcp: an application connects. Exit code 0: reached, 3: not at three tries of a second each.
"""

import os
import socket
import sys

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
sys.dont_write_bytecode = True

from wire import acknowledgement, basic_registration  # noqa: E402

ESN = bytes.fromhex("0011AABB22CC33DD")
PORT = 9361


def main():
    return 0 if any(reaches(*sys.argv[1:]) for _ in range(3)) else 3


def reaches(protocol, source, server):
    kind = socket.SOCK_DGRAM if protocol == "udp" else socket.SOCK_STREAM
    with socket.socket(socket.AF_INET, kind) as end:
        end.bind((source, 0))
        end.settimeout(1)
        try:
            end.connect((server, PORT))
            if protocol == "udp":
                end.send(basic_registration(ESN, b"\x01"))
                return end.recv(300) == acknowledgement(ESN, version=1)
            return True
        except TimeoutError:
            return False


sys.exit(main())
