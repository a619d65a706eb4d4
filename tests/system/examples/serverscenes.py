# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A radio and an application with the built server, all on the loopback network."""

import contextlib
import pathlib
import socket
import sqlite3

import wire
from foreground import Server, memory_folder
from scene import ESN, MADE_ESN, NO_ESN, Scene, text
from wire import PATIENCE, free_port, registration

ELDER, YOUNGER = bytes.fromhex("0000000000000001"), bytes.fromhex("F000000000000002")  # radios of the test's own
SUID = bytes.fromhex("0123456789ABCD")


class ServerScenes(Scene):
    """quillmere: the program's path, set before any test runs."""

    quillmere = ""

    def setUp(self):
        self.ports = free_port(socket.SOCK_DGRAM), free_port(socket.SOCK_STREAM)
        folder = memory_folder()
        self.addCleanup(folder.cleanup)
        self.server = Server(self.quillmere, pathlib.Path(folder.name),
                             "radioRegistrationPort={}\napplicationPort={}\n".format(*self.ports))
        self.addCleanup(self.server.kill)

    def register(self, esn, address, services=b"\x01\x03"):
        """A radio of the test's own; acknowledged."""
        with self.udp(address) as radio:
            radio.sendto(registration(esn, SUID, services), ("127.0.0.1", self.ports[0]))
            self.assertEqual(radio.recv(2048), wire.acknowledgement(esn))

    def forget(self, esn):
        """While the server is not there."""
        with contextlib.closing(sqlite3.connect(self.server.database, timeout=PATIENCE)) as database, database:
            self.assertEqual(database.execute("DELETE FROM subscribers WHERE esn = ?", (esn,)).rowcount, 1)

    def radio(self, address, *options, registers=True):
        radio = self.program("radio", "127.0.0.1", self.ports[0], f"local={address}:{self.free_udp_port()}", *options)
        if registers:
            radio.says_like(f"registering [0-9A-F]{{16}} with 127.0.0.1:{self.ports[0]}")
            radio.is_registered("[0-9A-F]{16}")
        return radio

    def application(self, *options, told=(), radios=0):
        """told: the table that is there, line by line."""
        application = self.program("application", "127.0.0.1", self.ports[1], *options)
        application.says(f"connected to 127.0.0.1:{self.ports[1]}", *told, f"table complete: {radios} radios")
        return application

    def test_radio_comes_and_goes(self):
        self.server.start()
        self.register(YOUNGER, "127.0.0.8", b"")
        self.register(ELDER, "127.0.0.9", b"\x02")
        application = self.application(radios=2, told=[f"{text(ELDER)} registered 127.0.0.9 2",
                                                       f"{text(YOUNGER)} registered 127.0.0.8 -"])
        radio = self.radio("127.0.0.2")
        application.says(f"{text(ESN)} registered 127.0.0.2 1,3")
        radio.ends("deregistered")
        application.says(f"{text(ESN)} gone 0.0.0.0 1,3")
        application.ends()
        unwanted = [record for record in self.server.records() if "rror" in record]
        self.assertEqual(unwanted, [])

    def test_report_makes_a_radio_unconfirmed(self):
        self.server.start()
        radio = self.radio("127.0.0.2")
        told = [f"{text(ESN)} registered 127.0.0.2 1,3"]
        other = self.application(told=told, radios=1)
        application = self.application(f"report={text(ESN)}@127.0.0.2", told=told, radios=1)
        application.says(f"reported {text(ESN)} at 127.0.0.2", f"{text(ESN)} unconfirmed 127.0.0.2 1,3")
        other.says(f"{text(ESN)} unconfirmed 127.0.0.2 1,3")
        for program, last_lines in ((other, []), (application, []), (radio, ["deregistered"])):
            program.ends(*last_lines)

    def test_server_makes_an_esn(self):
        self.server.start()
        application = self.application()
        radio = self.radio("127.0.0.2", f"esn={text(NO_ESN)}", registers=False)
        radio.says(f"registering {text(NO_ESN)} with 127.0.0.1:{self.ports[0]}")
        radio.is_registered(text(MADE_ESN))
        application.says(f"{text(MADE_ESN)} registered 127.0.0.2 1,3")
        # It deregisters by that ESN, and its address.
        radio.ends("deregistered")
        application.says(f"{text(MADE_ESN)} gone 0.0.0.0 1,3")
        application.ends()

    def test_pending_radio_is_kept(self):
        self.server.start()
        application = self.application()
        radio = self.radio("127.0.0.2", "pending=1", "services=2")
        application.says(f"{text(ESN)} pending 127.0.0.2 2")
        # Ten seconds are nothing to an application that is told nothing.
        radio.says(f"registering {text(ESN)} with 127.0.0.1:{self.ports[0]}")
        radio.is_registered(text(ESN))
        radio.ends("deregistered")
        others = application.says_at_last(f"{text(ESN)} gone .*")
        self.assertLessEqual(set(others), {f"{text(ESN)} pending 127.0.0.2 2"})
        application.ends()

    def test_server_comes_back_without_a_radio(self):
        self.server.start()
        for esn, address in ((ELDER, "127.0.0.9"), (YOUNGER, "127.0.0.8"), (ESN, "127.0.0.2")):
            self.register(esn, address)
        application = self.application(radios=3, told=[f"{text(ELDER)} registered 127.0.0.9 1,3",
                                                       f"{text(ESN)} registered 127.0.0.2 1,3",
                                                       f"{text(YOUNGER)} registered 127.0.0.8 1,3"])
        self.server.kill()
        application.says_like("disconnected: .+")
        self.forget(ELDER)
        self.server.start()
        # Refused until then; the first to be told is in front of the others, and so no change can be meant.
        others = application.says_at_last(f"connected to 127.0.0.1:{self.ports[1]}")
        self.assertTrue(all(other.startswith("disconnected: ") for other in others), others)
        others = application.says_at_last("table complete: 2 radios")
        self.assertEqual([other.split()[0] for other in others[:2]], [text(ESN), text(YOUNGER)])
        self.assertEqual(others[2:], [f"{text(ELDER)} left"])
        self.register(ELDER, "127.0.0.9")
        application.says_at_last(f"{text(ELDER)} registered 127.0.0.9 1,3")
        application.ends()

    def test_radio_is_there_before_its_server(self):
        radio = self.radio("127.0.0.2", registers=False)
        radio.says(f"registering {text(ESN)} with 127.0.0.1:{self.ports[0]}", "no acknowledgement, again")
        self.server.start()
        radio.is_registered(text(ESN))
        application = self.application(told=[f"{text(ESN)} registered 127.0.0.2 1,3"], radios=1)
        radio.ends("deregistered")
        application.says(f"{text(ESN)} gone 0.0.0.0 1,3")
        application.ends()
