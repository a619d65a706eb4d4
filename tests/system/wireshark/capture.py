# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A capture file made of datagrams and TCP segments; frame N is of N milliseconds after the first second. Of a frame at
most so many bytes are kept as largest says when it is made."""

import ipaddress
import struct

UDP, TCP = 17, 6
SYN, PUSH, ACK = 0x02, 0x08, 0x10


class Capture:
    def __init__(self):
        self.frames = []
        self.largest = 0xFFFF

    def add(self, protocol, source, destination, content):
        """An IPv4 packet in an Ethernet frame; gives the frame's number."""
        packet = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(content), 0, 0, 64, protocol, 0,
                             ipaddress.IPv4Address(source).packed, ipaddress.IPv4Address(destination).packed)
        frame = b"\x02\0\0\0\0\x02\x02\0\0\0\0\x01\x08\0" + packet + content
        self.frames.append((frame[:self.largest], len(frame)))
        return len(self.frames)

    def datagram(self, source, destination, data):
        """Each end as address and port. The checksum is none."""
        header = struct.pack(">HHHH", source[1], destination[1], 8 + len(data), 0)
        return self.add(UDP, source[0], destination[0], header + data)

    def unreachable(self, router, source, destination, data):
        """What the destination's host says of a datagram that nobody takes."""
        header = struct.pack(">HHHH", source[1], destination[1], 8 + len(data), 0)
        packet = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 28 + len(data), 0, 0, 64, UDP, 0,
                             ipaddress.IPv4Address(source[0]).packed, ipaddress.IPv4Address(destination[0]).packed)
        return self.add(1, router, source[0], struct.pack(">BBHI", 3, 3, 0, 0) + packet + header + data)

    def connection(self, client, server):
        return Connection(self, client, server)

    def write(self, path):
        with open(path, "wb") as file:
            file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 0xFFFF, 1))
            for number, (kept, size) in enumerate(self.frames, 1):
                file.write(struct.pack("<IIII", 1 + number // 1000, number % 1000 * 1000, len(kept), size) + kept)


class Connection:
    """Opened by a handshake of three; each piece that is sent is a segment of its own."""

    def __init__(self, capture, client, server):
        self.capture = capture
        self.next = {client: 1000, server: 5000}
        self.ends = {client: server, server: client}
        self.segment(client, SYN)
        self.segment(server, SYN | ACK)
        self.segment(client, ACK)

    def segment(self, sender, flags, data=b""):
        receiver = self.ends[sender]
        header = struct.pack(">HHIIBBHHH", sender[1], receiver[1], self.next[sender],
                             self.next[receiver] if flags & ACK else 0, 0x50, flags, 0xFFFF, 0, 0)
        self.next[sender] += len(data) + (1 if flags & SYN else 0)
        return self.capture.add(TCP, sender[0], receiver[0], header + data)

    def send(self, sender, data):
        return self.segment(sender, PUSH | ACK, data)
