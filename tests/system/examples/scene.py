# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""What the tests of one language's examples share."""

import pathlib
import socket
import unittest

from program import Program, refusal
from wire import PATIENCE, free_port

ESN, SUID = bytes.fromhex("0011AABB22CC33DD"), bytes.fromhex("123456789ABCDE")  # the examples' own defaults
NO_ESN = bytes(8)
MADE_ESN = b"\xf1" + SUID  # by the server, of the SUID


def text(esn):
    return esn.hex().upper()


def nothing_waits(protocol, local, remote=("0.0.0.0", 0)):
    """Whether all is sent and all is read at this machine's socket of these ends. A program may reach IPv4 through a
    socket of IPv6, where an address ends with that of IPv4. While other sockets come and go the lists may miss it, or
    have it twice: ask again."""
    ends = [f"{int.from_bytes(socket.inet_aton(address), 'little'):08X}:{port:04X}" for address, port in
            (local, remote)]
    rows = [row.split() for name in (protocol, f"{protocol}6")
            for row in pathlib.Path("/proc/net", name).read_text(encoding="ascii").splitlines()]
    found = {row[4] for row in rows if [end[-13:] for end in row[1:3]] == ends}
    return found == {"00000000:00000000"}


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
