# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""What Wireshark's dissector makes of datagrams that belong together, and of captures that have not all of them."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

import wire  # noqa: E402
from capture import Capture  # noqa: E402

ESN = bytes.fromhex("0011AABB22CC33DD")
SUID = bytes.fromhex("123456789ABCDE")
SERVER, RADIO, OTHER_PORT = ("10.0.0.1", 9361), ("10.0.0.5", 40000), ("10.0.0.5", 40001)
REGISTRATION = wire.registration(ESN, SUID, b"\x01\x03")
CHANGED = wire.registration(ESN, SUID, b"\x02")
ACKNOWLEDGEMENT = wire.acknowledgement(ESN)
REQUEST = wire.datagram(ESN, wire.DISCOVERY)


def links(shark, folder):
    capture = Capture()
    expected = {}

    def sent(source, destination, data, **linked):
        expected[capture.datagram(source, destination, data)] = {name: [value] for name, value in linked.items()}

    # Sent again, and both acknowledged: the first acknowledgement is the first one's.
    sent(RADIO, SERVER, REGISTRATION, response_in=4)
    sent(RADIO, SERVER, REGISTRATION, response_in=5, resent_of=1)
    sent(RADIO, SERVER, REGISTRATION, resent_of=1)
    sent(SERVER, RADIO, ACKNOWLEDGEMENT, response_to=1, response_time=0.003)
    sent(SERVER, RADIO, ACKNOWLEDGEMENT, response_to=2, response_time=0.003)
    # Nothing waits from before; another content is another registration.
    sent(RADIO, SERVER, REGISTRATION, response_in=8)
    sent(RADIO, SERVER, CHANGED, response_in=9)
    sent(SERVER, RADIO, ACKNOWLEDGEMENT, response_to=6, response_time=0.002)
    sent(SERVER, RADIO, ACKNOWLEDGEMENT, response_to=7, response_time=0.002)
    # Acknowledgements that nobody waits for: nothing was sent; another port, server, ESN.
    sent(SERVER, RADIO, ACKNOWLEDGEMENT)
    sent(RADIO, SERVER, REGISTRATION)
    sent(SERVER, OTHER_PORT, ACKNOWLEDGEMENT)
    sent(("10.0.0.2", 9361), RADIO, ACKNOWLEDGEMENT)
    sent(SERVER, ("10.0.0.6", 40000), ACKNOWLEDGEMENT)
    sent(SERVER, RADIO, wire.acknowledgement(ESN[::-1]))
    # A request is answered once, from whatever port; not by another radio, nor to another server.
    sent(SERVER, ("10.0.0.5", 9361), REQUEST, answered_in=19)
    sent(("10.0.0.6", 40000), SERVER, REGISTRATION)
    sent(OTHER_PORT, ("10.0.0.2", 9361), REGISTRATION)
    sent(OTHER_PORT, SERVER, REGISTRATION, answer_to=16, response_in=20)
    sent(SERVER, OTHER_PORT, ACKNOWLEDGEMENT, response_to=19, response_time=0.001)
    sent(OTHER_PORT, SERVER, REGISTRATION)
    # What the server rejects it does not acknowledge.
    sent(("10.0.0.7", 1), SERVER, REGISTRATION + b"\x00")
    sent(SERVER, ("10.0.0.7", 1), ACKNOWLEDGEMENT)
    # A copy of a datagram that did not arrive is not another one.
    sent(("10.0.0.8", 1), SERVER, REGISTRATION)
    copy = capture.unreachable(SERVER[0], ("10.0.0.8", 1), SERVER, REGISTRATION)
    sent(("10.0.0.8", 1), SERVER, REGISTRATION, resent_of=24)
    expected[copy] = {}

    capture.write(folder / "links.pcap")
    frames = shark.look(folder / "links.pcap")
    names = ("response_in", "response_to", "response_time", "resent_of", "answered_in", "answer_to")
    for frame, linked in expected.items():
        values = frames[frame].only().values
        shown = {name: values[name] for name in names if values[name]}
        if shown != linked:
            raise AssertionError(f"links of frame {frame} are {shown}, expected {linked}")
        if frames[frame].info.endswith(", sent again") != ("resent_of" in linked):
            raise AssertionError(f"frame {frame} is told as {frames[frame].info}")


def sizes(shark, folder):
    """A capture that has only the beginning of some frames: that is said, and nothing breaks."""
    capture = Capture()
    cut = {}
    for largest in range(42, 119):
        capture.largest = largest
        cut[capture.datagram(RADIO, SERVER, REGISTRATION)] = largest < 69
        connection = capture.connection((RADIO[0], 50000 + largest), SERVER)
        two = 2 * wire.notice(ESN, SUID, "10.0.0.5", wire.REGISTERED, b"\x01")
        cut[connection.send(SERVER, two)] = largest < 116
    capture.write(folder / "cut.pcap")
    frames = shark.look(folder / "cut.pcap")
    for frame, is_cut in cut.items():
        messages, info = frames[frame].messages, frames[frame].info
        if messages and (("Not whole in this capture" in info) != is_cut or any(each.experts for each in messages)):
            raise AssertionError(f"frame {frame}, which is {'not' if is_cut else ''} whole, is told as {info}")
    if sum(bool(frames[frame].messages) for frame in cut) < 100:
        raise AssertionError("the dissector is not asked")
