# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""An application with a server that does what a test wants."""

import signal
import socket
import time

import wire
from foreground import wait_for
from scene import ESN, SUID, Scene, nothing_waits, text
from wire import DEREGISTERED, REGISTERED, UNCONFIRMED, UNREACHABLE, receive_exactly, report

# In the order of a table: a byte from 128 is greater than one below.
TABLE = [bytes.fromhex(digits) for digits in ("0000000000000001", "0000000000000080", "7FFFFFFFFFFFFFFF",
                                              "8000000000000000", "FFFFFFFFFFFFFFFF")]
STATES = {DEREGISTERED: "gone", UNREACHABLE: "unreachable", UNCONFIRMED: "unconfirmed", REGISTERED: "registered"}


def notice(esn, availability=REGISTERED, services=b"\x01\x03", address="127.0.0.2"):
    return wire.notice(esn, SUID, address, availability, services)


def line(esn, availability=REGISTERED, services="1,3", address="127.0.0.2"):
    return f"{text(esn)} {STATES.get(availability, availability)} {address} {services}"


def pending(esn, availability=REGISTERED):
    data = bytearray(notice(esn, availability))
    data[8 + 15] = 1
    return bytes(data)


def is_read(connection):
    """Whether the other side, a socket of this machine, has taken all that was sent."""
    here, there = connection.getsockname(), connection.getpeername()
    return nothing_waits("tcp", here, there) and nothing_waits("tcp", there, here)


class ApplicationScenes(Scene):
    """The server listens, and takes one connection after the other."""

    def setUp(self):
        self.listener = self.socket(socket.SOCK_STREAM, "127.0.0.1", 0)
        self.port = self.listener.getsockname()[1]

    def application(self, *options):
        """Started, while the server is there."""
        self.listener.listen()
        application = self.program("application", "127.0.0.1", self.port, *options)
        return application, self.connection(application)

    def connection(self, application):
        """The next one."""
        connection, _ = self.listener.accept()
        self.addCleanup(connection.close)
        connection.settimeout(wire.PATIENCE)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        application.says(f"connected to 127.0.0.1:{self.port}")
        return connection

    def is_given_up(self, application, connection):
        """Without having been sent anything."""
        application.says_like("disconnected: .+")
        try:
            self.assertEqual(connection.recv(100), b"")
        except ConnectionResetError:
            pass  # something was left unread
        connection.close()

    def drops(self, application, connection, *last_lines):
        """At once: in a pause a table would be complete."""
        connection.close()
        application.says(*last_lines)
        application.says_like("disconnected: .+")

    def leaves(self, application, connection, by=signal.SIGINT):
        """Without having sent anything more."""
        application.ends(by=by)
        self.assertEqual(connection.recv(100), b"")

    def test_table_ends_with_the_first_notice_out_of_order(self):
        for later in (TABLE[0], TABLE[-2], TABLE[-1]):
            application, connection = self.application()
            connection.sendall(b"".join(map(notice, TABLE)) + notice(later, UNCONFIRMED))
            application.says(*map(line, TABLE), f"table complete: {len(TABLE)} radios", line(later, UNCONFIRMED))
            # From here on any order is right.
            connection.sendall(notice(TABLE[0], UNREACHABLE) + notice(TABLE[0]) + notice(ESN))
            application.says(line(TABLE[0], UNREACHABLE), line(TABLE[0]), line(ESN))
            self.leaves(application, connection)

    def test_table_ends_with_silence(self):
        application, connection = self.application()
        connection.sendall(notice(TABLE[1]) + notice(TABLE[3]))
        application.says(line(TABLE[1]), line(TABLE[3]), "table complete: 2 radios")
        # What comes next is a change, in order or not.
        connection.sendall(notice(TABLE[4]) + notice(TABLE[0]))
        application.says(line(TABLE[4]), line(TABLE[0]))
        self.leaves(application, connection, by=signal.SIGTERM)

    def test_table_without_radios(self):
        application, connection = self.application()
        application.says("table complete: 0 radios")
        connection.sendall(notice(TABLE[4]) + notice(TABLE[0]))
        application.says(line(TABLE[4]), line(TABLE[0]))
        self.leaves(application, connection)

    def test_table_goes_on_while_notices_come(self):
        application, connection = self.application()
        told = [bytes([number]) * 8 for number in range(1, 16)]
        for esn in told:
            connection.sendall(notice(esn))
            application.says(line(esn))
            self.assertIsNone(application.poll(0.2))
        connection.sendall(notice(told[0]))
        application.says(f"table complete: {len(told)} radios", line(told[0]))
        self.leaves(application, connection)

    def test_silence_after_the_table_means_nothing(self):
        application, connection = self.application()
        connection.sendall(notice(ESN) * 2)
        application.says(line(ESN), "table complete: 1 radios", line(ESN))
        # For as long as it takes another one to end a table.
        other, others_connection = self.application()
        other.says("table complete: 0 radios")
        connection.sendall(notice(ESN))
        application.says(line(ESN))
        self.leaves(other, others_connection)
        self.leaves(application, connection)

    def test_messages_of_another_type_do_not_put_off_the_end_of_the_table(self):
        application, connection = self.application()
        connection.sendall(notice(ESN))
        application.says(line(ESN))
        said = None
        for _ in range(5 * wire.PATIENCE):
            connection.sendall(wire.message(9, b"abc"))
            said = application.poll(0.2)
            if said:
                break
        self.assertEqual(said, "table complete: 1 radios")
        self.leaves(application, connection)

    def test_tells_each_state(self):
        application, connection = self.application()
        told = [notice(TABLE[0], UNREACHABLE), notice(TABLE[1], UNCONFIRMED, b""), pending(TABLE[2]),
                pending(TABLE[3], DEREGISTERED), notice(TABLE[4], 9, bytes(range(255)), "255.255.255.255"),
                notice(ESN, DEREGISTERED, b"\x03", "0.0.0.0")]
        connection.sendall(b"".join(told))
        application.says(line(TABLE[0], UNREACHABLE), line(TABLE[1], UNCONFIRMED, "-"), line(TABLE[2], "pending"),
                         line(TABLE[3], "pending"),
                         line(TABLE[4], 9, ",".join(map(str, range(255))), "255.255.255.255"),
                         "table complete: 5 radios", line(ESN, DEREGISTERED, "3", "0.0.0.0"))
        self.leaves(application, connection)

    def test_counts_no_radio_that_is_gone(self):
        application, connection = self.application()
        connection.sendall(notice(TABLE[0]) + notice(TABLE[1], DEREGISTERED) + notice(TABLE[2]))
        application.says(line(TABLE[0]), line(TABLE[1], DEREGISTERED), line(TABLE[2]), "table complete: 2 radios")
        connection.sendall(notice(TABLE[0], DEREGISTERED) + notice(ESN))
        application.says(line(TABLE[0], DEREGISTERED), line(ESN))
        self.drops(application, connection)
        # Nor is it one that has left.
        connection = self.connection(application)
        connection.sendall(notice(TABLE[2]) + notice(ESN))
        application.says(line(TABLE[2]), f"{text(ESN)} left", "table complete: 1 radios", line(ESN))
        self.leaves(application, connection)

    def test_what_is_not_told_again_has_left(self):
        application, connection = self.application()
        connection.sendall(b"".join(map(notice, TABLE)))
        application.says(*map(line, TABLE), f"table complete: {len(TABLE)} radios")
        self.drops(application, connection)
        connection = self.connection(application)
        connection.sendall(notice(TABLE[1]) + notice(TABLE[4]) + notice(TABLE[2]))
        application.says(line(TABLE[1]), line(TABLE[4]))
        # At the end of the table, in front of the change that shows it: that one is back.
        application.says(*(f"{text(esn)} left" for esn in (TABLE[0], TABLE[2], TABLE[3])), "table complete: 2 radios",
                         line(TABLE[2]))
        self.drops(application, connection)
        connection = self.connection(application)
        application.says(*(f"{text(esn)} left" for esn in (TABLE[1], TABLE[2], TABLE[4])), "table complete: 0 radios")
        self.leaves(application, connection)

    def test_old_table_stays_until_the_new_one_is_complete(self):
        application, connection = self.application()
        connection.sendall(notice(TABLE[0]) + notice(TABLE[3]))
        application.says(line(TABLE[0]), line(TABLE[3]), "table complete: 2 radios")
        self.drops(application, connection)
        # Cut off in the middle, with a radio that is never told again.
        connection = self.connection(application)
        connection.sendall(notice(TABLE[1]) + notice(TABLE[2])[:20])
        self.drops(application, connection, line(TABLE[1]))
        # Before anything is told; what a table had told counts for that table only.
        connection = self.connection(application)
        self.drops(application, connection)
        connection = self.connection(application)
        connection.sendall(notice(TABLE[0]) + notice(TABLE[2]))
        application.says(line(TABLE[0]), line(TABLE[2]), f"{text(TABLE[1])} left", f"{text(TABLE[3])} left",
                         "table complete: 2 radios")
        self.leaves(application, connection)

    def test_what_waits_while_the_program_is_held_up_is_no_silence(self):
        application, connection = self.application()
        connection.sendall(b"".join(map(notice, TABLE)))
        application.says(*map(line, TABLE), f"table complete: {len(TABLE)} radios")
        self.drops(application, connection)
        # The rest of the table, the end of the connection, a change.
        complete = f"table complete: {len(TABLE)} radios"
        for told, rest, said in ((1, TABLE[1:], [*map(line, TABLE[1:]), complete]), (1, [], []),
                                 (len(TABLE), TABLE[:1], [complete, line(TABLE[0])])):
            connection = self.connection(application)
            connection.sendall(b"".join(map(notice, TABLE[:told])))
            application.says(*map(line, TABLE[:told]))
            application.process.send_signal(signal.SIGSTOP)
            connection.sendall(b"".join(map(notice, rest)))
            if not rest:
                connection.close()
            time.sleep(2.5)  # longer than the silence that ends a table
            application.process.send_signal(signal.SIGCONT)
            application.says(*said)
            self.drops(application, connection)

    def test_connects_anew_where_it_is_lost(self):
        contradiction = bytearray(notice(ESN))
        contradiction[8 + 21] += 1
        for lost in (b"HTTP/1.1", b"QMRA\x05\x09\0\0", b"QMRA\x04\x09\x16\x01", bytes(contradiction)):
            application, connection = self.application()
            connection.sendall(notice(ESN) + lost + notice(TABLE[0]))
            application.says(line(ESN))
            self.is_given_up(application, connection)
            # Nothing of it is read any more.
            connection = self.connection(application)
            connection.sendall(notice(TABLE[1]) * 2)
            application.says(line(TABLE[1]), f"{text(ESN)} left", "table complete: 1 radios", line(TABLE[1]))
            self.leaves(application, connection)

    def test_skips_messages_of_another_type(self):
        application, connection = self.application()
        for unknown in (wire.message(9), wire.message(2, b"abc"), wire.message(255, b"\xee" * 277)):
            connection.sendall(unknown + notice(ESN) + unknown + notice(ESN, UNCONFIRMED) + unknown)
        application.says(line(ESN), "table complete: 1 radios", line(ESN, UNCONFIRMED))
        application.says(*[line(ESN), line(ESN, UNCONFIRMED)] * 2)
        self.leaves(application, connection)

    def test_reads_messages_cut_anywhere(self):
        application, connection = self.application()
        data = notice(ESN) + wire.message(9, b"abc") + notice(TABLE[0], UNCONFIRMED)
        application.says("table complete: 0 radios")
        for cut in range(1, len(data)):
            connection.sendall(data[:cut])
            wait_for(lambda: is_read(connection), "the first part to be read", pause=0.001)
            connection.sendall(data[cut:])
            application.says(line(ESN), line(TABLE[0], UNCONFIRMED))
        self.leaves(application, connection)

    def test_reports_once(self):
        application, connection = self.application(f"report={text(ESN)}@192.168.0.1")
        # Not before a table is complete.
        connection.sendall(notice(ESN))
        self.drops(application, connection, line(ESN))
        connection = self.connection(application)
        connection.sendall(notice(ESN))
        application.says(line(ESN), "table complete: 1 radios", f"reported {text(ESN)} at 192.168.0.1")
        wanted = report(ESN, wire.address_number("192.168.0.1"))
        self.assertEqual(receive_exactly(connection, len(wanted)), wanted)
        self.drops(application, connection)
        connection = self.connection(application)
        application.says(f"{text(ESN)} left", "table complete: 0 radios")
        self.leaves(application, connection)

    def test_tries_again_until_there_is_a_server(self):
        # Bound, and not listening: everyone is refused, and nobody else gets the port.
        application = self.program("application", "127.0.0.1", self.port)
        for _ in range(3):
            application.says_like("disconnected: .+")
        self.listener.listen()
        others = application.says_at_last(f"connected to 127.0.0.1:{self.port}")
        self.assertTrue(all(other.startswith("disconnected: ") for other in others), others)
        application.says("table complete: 0 radios")
        application.ends()

    def test_tries_a_name_that_nobody_can_have(self):
        application = self.program("application", "a..b", self.port)
        for _ in range(2):
            application.says_like("disconnected: .+")
        others = application.end()
        self.assertTrue(all(other.startswith("disconnected: ") for other in others), others)

    def test_ends_while_it_waits(self):
        for by in (signal.SIGINT, signal.SIGTERM):
            application = self.program("application", "127.0.0.1", self.port)
            application.says_like("disconnected: .+")
            others = application.end(by)  # another attempt may come first
            self.assertTrue(all(other.startswith("disconnected: ") for other in others), others)

    def test_says_how_it_is_used(self):
        for wrong in ([], ["127.0.0.1"], ["127.0.0.1", "0"], ["127.0.0.1", "65536"], ["127.0.0.1", "x"]):
            self.is_refused("application", *wrong)
        for wrong in ("", "report", "report=", f"report={text(ESN)}", f"report={text(ESN)}@", "report=@127.0.0.2",
                      f"report={text(ESN)[1:]}@127.0.0.2", f"report={text(ESN)}0@127.0.0.2",
                      f"report={text(ESN)[1:]}G@127.0.0.2", f"report={text(ESN)}@127.0.0.256", "color=red"):
            self.is_refused("application", "127.0.0.1", self.port, wrong)
