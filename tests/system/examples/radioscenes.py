# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A radio with a server that does what a test wants."""

import signal
import socket
import time

from foreground import wait_for
from program import refusal
from scene import ESN, MADE_ESN, NO_ESN, SUID, Scene, nothing_waits, text
from wire import ACKNOWLEDGEMENT, DEREGISTRATION, DISCOVERY, PATIENCE, acknowledgement, datagram, registration

OTHER_ESN = bytes.fromhex("0011AABB22CC33DE")


class RadioScenes(Scene):
    """The server has one socket, the radio an address of its own."""

    def setUp(self):
        self.server = self.udp()
        self.port = self.server.getsockname()[1]
        self.address = ("127.0.0.2", self.free_udp_port())

    def radio(self, *options):
        return self.program("radio", "127.0.0.1", self.port, f"local={':'.join(map(str, self.address))}", *options)

    def received(self):
        data, sender = self.server.recvfrom(2048)
        self.assertEqual(sender, self.address)
        return data

    def send(self, data, source=None):
        """Waits until it is read: a radio has room for some hundred datagrams only, and each one is to reach it."""
        (source or self.server).sendto(data, self.address)
        wait_for(lambda: nothing_waits("udp", self.address), "the radio to read", pause=0.001)

    def registering(self, esn=ESN):
        return f"registering {text(esn)} with 127.0.0.1:{self.port}"

    def is_registered(self, radio, esn=ESN, suid=SUID, services=b"\x01\x03", pending=False):
        """After one more registration."""
        radio.says(self.registering(esn))
        self.assertEqual(self.received(), registration(esn, suid, services, pending))
        self.takes(radio, acknowledgement(esn), registration(esn, suid, services, pending))

    def takes(self, radio, answer, registration_again):
        """The radio may have sent again before."""
        self.send(answer)
        for _ in range(radio.is_registered(text(answer[5:13]))):
            self.assertEqual(self.received(), registration_again)

    def leaves(self, radio, esn=ESN, by=signal.SIGINT):
        radio.ends("deregistered", by=by)
        self.assertEqual(self.received(), datagram(esn, DEREGISTRATION))

    def foreign(self):
        """Datagrams that are no answer to a radio, and what each comes from (None: the server's own socket)."""
        other_port, other_address = self.udp(), self.udp("127.0.0.3", self.port)
        good = [acknowledgement(ESN), datagram(ESN, DISCOVERY)]
        bad = [data[:size] for data in good for size in range(len(data))]
        bad += [data + b"\0" for data in good] + [b"QMRA" + data[4:] for data in good]
        bad += [data[:4] + bytes([version]) + data[5:] for data in good for version in (0, 4)]
        bad += [datagram(ESN, opcode) for opcode in (0, 1, 3, 5, 6)] + [registration(ESN, SUID)]
        bad += [acknowledgement(OTHER_ESN), acknowledgement(NO_ESN), datagram(OTHER_ESN, DISCOVERY),
                datagram(NO_ESN, DISCOVERY), datagram(ESN, ACKNOWLEDGEMENT, b"\0" * 2000), b"\xff" * 2000]
        return ([(data, None) for data in bad] + [(data, other_address) for data in bad + good]
                + [(acknowledgement(ESN), other_port)])

    def test_registers_and_deregisters(self):
        radio = self.radio()
        self.is_registered(radio)
        self.leaves(radio)

    def test_is_ended_by_sigterm_too(self):
        radio = self.radio()
        self.is_registered(radio)
        self.leaves(radio, by=signal.SIGTERM)

    def test_deregisters_before_it_is_acknowledged(self):
        radio = self.radio()
        radio.says(self.registering())
        self.assertEqual(self.received(), registration(ESN, SUID, b"\x01\x03"))
        self.leaves(radio)

    def test_deregisters_as_the_server_would_know_it(self):
        # Without an ESN it would end whatever radio the server knows at this address.
        radio = self.radio(f"esn={text(NO_ESN)}")
        radio.says(self.registering(NO_ESN))
        self.assertEqual(self.received(), registration(NO_ESN, SUID, b"\x01\x03"))
        self.leaves(radio, MADE_ESN)

    def test_registers_as_it_is_told(self):
        esn, suid = bytes.fromhex("FEDCBA9876543210"), bytes.fromhex("FFFFF000000001")
        radio = self.radio(f"esn={esn.hex()}", f"suid={suid.hex()}", "services=", "pending=1")
        self.is_registered(radio, esn, suid, b"", True)
        self.leaves(radio, esn)

    def test_registers_each_service(self):
        radio = self.radio(f"services={','.join(map(str, range(255)))}")
        self.is_registered(radio, services=bytes(range(255)))
        self.leaves(radio)

    def test_takes_the_esn_that_the_server_makes(self):
        radio = self.radio(f"esn={text(NO_ESN)}", "period=1")
        radio.says(self.registering(NO_ESN))
        self.assertEqual(self.received(), registration(NO_ESN, SUID, b"\x01\x03"))
        for other in (NO_ESN, ESN, MADE_ESN[:-1] + b"\0", b"\xf2" + MADE_ESN[1:]):
            self.send(acknowledgement(other))
        self.takes(radio, acknowledgement(MADE_ESN), registration(NO_ESN, SUID, b"\x01\x03"))
        self.is_registered(radio, MADE_ESN)
        self.leaves(radio, MADE_ESN)

    def test_registers_again_in_time(self):
        radio = self.radio("period=1")
        for _ in range(2):
            self.is_registered(radio)
        # Each time until it is acknowledged.
        radio.says(self.registering(), "no acknowledgement, again")
        for _ in range(2):
            self.assertEqual(self.received(), registration(ESN, SUID, b"\x01\x03"))
        self.takes(radio, acknowledgement(ESN), registration(ESN, SUID, b"\x01\x03"))
        self.leaves(radio)

    def test_keeps_a_pending_registration_by_itself(self):
        radio = self.radio("pending=1")
        for _ in range(2):
            self.is_registered(radio, pending=True)
        self.leaves(radio)

    def test_keeps_a_pending_registration_without_acknowledgements(self):
        radio = self.radio("pending=1", "period=1")
        radio.says(self.registering())
        # Waits that double would be too long by now for anybody's patience.
        for _ in range(8):
            self.assertEqual(self.received(), registration(ESN, SUID, b"\x01\x03", True))
            radio.says("no acknowledgement, again")
        self.assertEqual(radio.end()[-1], "deregistered")

    def test_answers_a_discovery_request(self):
        radio = self.radio()
        self.is_registered(radio)
        # An acknowledgement that comes late is none of anything; and it would let a radio that took one of these for a
        # request take the next one as well.
        for data, source in self.foreign():
            self.send(data, source)
            self.send(acknowledgement(ESN))
        for source in (self.server, self.udp()):
            self.send(datagram(ESN, DISCOVERY), source)
            radio.says("discovery request")
            self.is_registered(radio)
        self.leaves(radio)

    def test_does_not_wait_longer_for_foreign_datagrams(self):
        radio = self.radio()
        radio.says(self.registering())
        self.assertEqual(self.received(), registration(ESN, SUID, b"\x01\x03"))
        foreign = self.foreign() + [(datagram(ESN, DISCOVERY), None)]
        self.server.settimeout(0.1)
        deadline = time.monotonic() + PATIENCE
        while True:
            self.assertLess(time.monotonic(), deadline, "it has not sent again")
            for data, source in foreign:
                self.send(data, source)
            try:
                self.assertEqual(self.received(), registration(ESN, SUID, b"\x01\x03"))
                break
            except socket.timeout:
                pass
        self.server.settimeout(PATIENCE)
        radio.says("no acknowledgement, again")
        self.takes(radio, acknowledgement(ESN), registration(ESN, SUID, b"\x01\x03"))
        self.leaves(radio)

    def test_sends_again_until_there_is_a_server(self):
        self.server.close()
        radio = self.radio()
        radio.says(self.registering(), "no acknowledgement, again", "no acknowledgement, again")
        self.server = self.udp(port=self.port)
        self.assertEqual(self.received(), registration(ESN, SUID, b"\x01\x03"))
        self.send(acknowledgement(ESN))
        radio.is_registered(text(ESN))
        # It is not there for the last one either.
        self.server.close()
        radio.ends("deregistered")

    def test_tries_a_name_that_nobody_can_have(self):
        radio = self.program("radio", "a..b", self.port, f"local={':'.join(map(str, self.address))}")
        radio.says(f"registering {text(ESN)} with a..b:{self.port}", "no acknowledgement, again")
        radio.ends("deregistered")

    def test_does_not_begin_where_it_cannot_listen(self):
        taken = self.udp(*self.address)
        code, output, complaint = refusal([*self.commands["radio"], "127.0.0.1", str(self.port),
                                           f"local={':'.join(map(str, self.address))}"])
        taken.close()
        self.assertEqual((code, output), (1, ""))
        self.assertTrue(complaint)

    def test_says_how_it_is_used(self):
        for wrong in ([], ["127.0.0.1"], ["127.0.0.1", "0"], ["127.0.0.1", "65536"], ["127.0.0.1", "x"]):
            self.is_refused("radio", *wrong)
        for wrong in ("", "esn", "esn=", "esn=0011AABB22CC33D", "esn=0011AABB22CC33DDE", "esn=0011AABB22CC33DG",
                      "suid=", "suid=123456789ABCD", "suid=123456789ABCDEF", "suid=123456789ABCDG", "services=256",
                      "services=-1", "services=1,", "services=1,,3", "services=x",
                      "services=" + ",".join(["1"] * 256), "pending=", "pending=2", "pending=x", "local=127.0.0.1",
                      "local=127.0.0.1:", "local=127.0.0.1:65536", "local=:x", "period=0", "period=-1",
                      "period=", "period=x", "period=1000000", "color=red"):
            self.is_refused("radio", "127.0.0.1", self.port, wrong)
