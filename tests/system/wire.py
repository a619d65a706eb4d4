# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Both protocols of docs/protocols.md, for every test and tool in Python; many radios at one socket, and an
application. Nothing here comes from the server's own codecs: it is what they are held against."""

import collections
import ipaddress
import socket
import struct

PATIENCE = 20  # seconds

REGISTRATION, ACKNOWLEDGEMENT, DEREGISTRATION, DISCOVERY, EXTENDED_REGISTRATION = 1, 2, 3, 4, 5
NOTICE, REPORT, IGNORED = 1, 2, 3
DEREGISTERED, UNREACHABLE, UNCONFIRMED, REGISTERED = range(4)

IP_PKTINFO = getattr(socket, "IP_PKTINFO", 8)  # Linux; Python before 3.14 has no name for it

Datagram = collections.namedtuple("Datagram", "version esn opcode payload")
Notice = collections.namedtuple("Notice", "esn suid pending address availability services")


def address_number(text):
    return int(ipaddress.IPv4Address(text))


def datagram(esn, opcode, payload=b"", version=3):
    return b"QMRS" + bytes([version]) + esn + bytes([opcode]) + struct.pack("<H", len(payload)) + payload


def basic_registration(esn, services=b"", version=1):
    return datagram(esn, REGISTRATION, bytes([len(services)]) + services, version)


def registration(esn, suid, services=b"", pending=False, version=3):
    """An extended one."""
    payload = suid + bytes([pending, len(services)]) + services
    return datagram(esn, EXTENDED_REGISTRATION, payload, version)


def acknowledgement(esn, version=3):
    return datagram(esn, ACKNOWLEDGEMENT, b"\x00", version)


def split_datagram(data):
    return Datagram(data[4], data[5:13], data[13], data[16:])


def message(message_type, payload=b""):
    """Between the server and an application."""
    return b"QMRA\x04" + bytes([message_type]) + struct.pack("<H", len(payload)) + payload


def notice(esn, suid, address, availability, services=b""):
    """Of a confirmed registration; the address as text."""
    payload = esn + suid + b"\x00" + struct.pack("<I", address_number(address))
    payload += bytes([availability, len(services)]) + services
    return message(NOTICE, payload)


def report(esn, address):
    """The address as a number."""
    return message(REPORT, esn + struct.pack("<I", address))


def split_notice(data):
    """A whole one; the address as a number."""
    if data[:6] != b"QMRA\x04\x01":
        raise ValueError(f"not a notice: {data[:64].hex(' ')}")
    payload = data[8:]
    return Notice(payload[:8], payload[8:15], payload[15], struct.unpack_from("<I", payload, 16)[0],
                  payload[20], payload[22:])


def take_notices(stream):
    """Takes the whole notices off the front of a bytearray; yields them with the address as a number."""
    while len(stream) >= 8 and len(stream) >= 8 + stream[6] + 256 * stream[7]:
        data = bytes(stream[:8 + stream[6] + 256 * stream[7]])
        del stream[:len(data)]
        yield split_notice(data)


def free_port(kind):
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def receive_exactly(stream, count):
    data = b""
    while len(data) < count:
        more = stream.recv(count - len(data))
        if not more:
            raise ConnectionError("the server has closed the connection")
        data += more
    return data


def receive_message(stream):
    header = receive_exactly(stream, 8)
    return header + receive_exactly(stream, int.from_bytes(header[6:8], "little"))


class Radios:
    """Any number of radios on the loopback network: each datagram names the address that it comes from."""

    def __init__(self, server_port):
        self.server = ("127.0.0.1", server_port)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        self.socket.bind(("", 0))
        self.socket.setblocking(False)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def fileno(self):
        return self.socket.fileno()

    def send(self, source, data):
        """The source address as a number."""
        info = struct.pack("=i4s4s", 0, source.to_bytes(4, "big"), bytes(4))
        self.socket.sendmsg([data], [(socket.IPPROTO_IP, IP_PKTINFO, info)], 0, self.server)

    def receive(self):
        """What has arrived, at once."""
        while True:
            try:
                yield self.socket.recv(300)
            except BlockingIOError:
                return


class Application:
    """Reads notices as they come, or, once the server is gone, what is left of them."""

    def __init__(self, server_port):
        self.socket = socket.create_connection(("127.0.0.1", server_port), PATIENCE)
        self.socket.setblocking(False)
        self.stream = bytearray()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def fileno(self):
        return self.socket.fileno()

    def receive(self):
        try:
            self.stream += self.socket.recv(1 << 20)
        except BlockingIOError:
            pass
        return take_notices(self.stream)

    def receive_rest(self):
        self.socket.settimeout(PATIENCE)
        try:
            while True:
                more = self.socket.recv(1 << 20)
                if not more:
                    break
                self.stream += more
        except ConnectionResetError:
            pass  # the server was killed with something unread
        return take_notices(self.stream)
