# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""What the tests of one language's examples share."""

import socket
import unittest

from program import Program, refusal
from wire import PATIENCE, free_port

ESN, SUID = bytes.fromhex("0011AABB22CC33DD"), bytes.fromhex("123456789ABCDE")  # the examples' own defaults
NO_ESN = bytes(8)
MADE_ESN = b"\xf1" + SUID  # by the server, of the SUID


def text(esn):
    return esn.hex().upper()


class Scene(unittest.TestCase):
    """commands: the language's, set before any test runs."""

    commands = {}

    def program(self, name, *arguments):
        program = Program([*self.commands[name], *map(str, arguments)])
        self.addCleanup(program.kill)
        return program

    def socket(self, kind, *address):
        """Bound to the address; waits with patience."""
        made = socket.socket(socket.AF_INET, kind)
        self.addCleanup(made.close)
        made.settimeout(PATIENCE)
        if address:
            made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            made.bind(address)
        return made

    def udp(self, address="127.0.0.1", port=0):
        # Without SO_REUSEADDR: two of them could have the same port.
        made = self.socket(socket.SOCK_DGRAM)
        made.bind((address, port))
        return made

    def free_udp_port(self):
        return free_port(socket.SOCK_DGRAM)

    def is_refused(self, program, *arguments):
        """As a wrong usage."""
        code, output, complaint = refusal([*self.commands[program], *map(str, arguments)])
        self.assertEqual((code, output), (2, ""), f"{program} {arguments}: {complaint}")
        self.assertIn("usage: ", complaint.lower(), f"{program} {arguments}")
