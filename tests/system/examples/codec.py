# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The examples' codecs against docs/protocols.json, by a driver in each language that takes a line and gives one:

registration ESN SUID PENDING SERVICES -> hex; PENDING is the byte's number, SERVICES 1,3 or - for none
deregistration ESN                     -> hex
datagram HEX                           -> acknowledgement ESN | discovery request ESN | invalid; HEX is - for no bytes
report ESN ADDRESS                     -> hex
stream HEX HEX ...                     -> what the pieces make, with "; " between; nothing at all: an empty line
    notice ESN SUID PENDING ADDRESS AVAILABILITY SERVICES STATE | lost

Hexadecimal digits are capital letters. Nothing comes behind "lost".
"""

import json
import subprocess

from program import EXAMPLES, PATIENCE
from scene import Scene

DESCRIPTION = EXAMPLES.parent / "docs" / "protocols.json"
HEADER = {"qmrs": 16, "qmra": 8}
NAMES = {2: "acknowledgement", 4: "discovery request"}


def codes(services):
    return ",".join(map(str, services)) or "-"


def notice(vector):
    fields = vector["fields"]
    return (f"notice {fields['esn']} {fields['suid']} {fields['pending']} {fields['address']} "
            f"{fields['availability']} {codes(fields['services'])} {vector['state']}")


def bytewise(digits):
    return " ".join(digits[at:at + 2] for at in range(0, len(digits), 2))


class Codec(Scene):
    """Each group of vectors has some, or the description has lost them."""

    @classmethod
    def setUpClass(cls):
        cls.vectors = json.loads(DESCRIPTION.read_text(encoding="utf-8"))["vectors"]

    def chosen(self, protocol, **wanted):
        """Vectors that are good or bad as a whole, and have these fields."""
        found = [vector for vector in self.vectors[protocol]
                 if "reject" not in vector and "invalid" not in vector
                 and all({**vector, **vector["fields"]}.get(name) == value for name, value in wanted.items())
                 and vector["fields"]["length"] == len(vector["hex"]) // 2 - HEADER[protocol]]
        self.assertTrue(found, f"no {protocol} vectors with {wanted}")
        return found

    def invalid(self, protocol):
        found = [vector["hex"] for vector in self.vectors[protocol] if vector.get("invalid")]
        self.assertTrue(found, f"no invalid {protocol} vectors")
        return found

    def answers(self, questions):
        """questions: pairs of a line and what comes back."""
        driver = subprocess.run(self.commands["vectors"], input="".join(f"{line}\n" for line, _ in questions),
                                capture_output=True, text=True, timeout=PATIENCE, check=False)
        answers = driver.stdout.splitlines()
        for (line, wanted), answer in zip(questions, answers):
            self.assertEqual(answer, wanted, f"answer to: {line}")
        self.assertEqual((len(answers), driver.returncode, driver.stderr), (len(questions), 0, ""))

    def test_encodes_registrations(self):
        found = self.chosen("qmrs", **{"from": "radio", "version": 3, "opcode": 5})
        for pending in (0, 1):
            self.chosen("qmrs", opcode=5, version=3, pending=pending)
        self.answers([(f"registration {fields['esn']} {fields['suid']} {fields['pending']} {codes(fields['services'])}",
                       vector["hex"]) for vector in found for fields in [vector["fields"]]])

    def test_encodes_deregistrations(self):
        found = self.chosen("qmrs", **{"from": "radio", "version": 3, "opcode": 3})
        self.answers([(f"deregistration {vector['fields']['esn']}", vector["hex"]) for vector in found])

    def test_decodes_datagrams(self):
        found = self.chosen("qmrs", **{"from": "server"})
        self.assertEqual({vector["fields"]["opcode"] for vector in found}, set(NAMES))
        self.answers([(f"datagram {vector['hex']}", f"{NAMES[vector['fields']['opcode']]} {vector['fields']['esn']}")
                      for vector in found])

    def test_takes_no_invalid_datagram(self):
        self.answers([(f"datagram {digits}", "invalid") for digits in self.invalid("qmrs")])

    def test_takes_no_damaged_datagram(self):
        questions = []
        for vector in self.chosen("qmrs", **{"from": "server", "version": 3}):
            digits = vector["hex"]
            damaged = [digits[:size] or "-" for size in range(0, len(digits), 2)]
            damaged += [digits + "00", digits[:8] + "00" + digits[10:], digits[:8] + "04" + digits[10:]]
            # Each character of the name in turn.
            damaged += [digits[:at] + "58" + digits[at + 2:] for at in range(0, 8, 2)]
            questions += [(f"datagram {each}", "invalid") for each in damaged]
        self.answers(questions)

    def test_encodes_reports(self):
        found = self.chosen("qmra", **{"from": "application", "type": 2})
        self.answers([(f"report {fields['esn']} {fields['address']}", vector["hex"])
                      for vector in found for fields in [vector["reports"]]])

    def test_decodes_notices(self):
        found = self.chosen("qmra", type=1)
        self.answers([(f"stream {vector['hex']}", notice(vector)) for vector in found])

    def test_decodes_notices_byte_by_byte(self):
        found = self.chosen("qmra", type=1)
        self.answers([(f"stream {bytewise(vector['hex'])}", notice(vector)) for vector in found])

    def test_waits_for_the_rest_of_a_notice(self):
        found = self.chosen("qmra", type=1)
        self.answers([(f"stream {vector['hex'][:size]}", "") for vector in found
                      for size in range(2, len(vector["hex"]), 2)])

    def test_is_lost_at_invalid_notices(self):
        good = self.chosen("qmra", type=1)[0]
        for digits in self.invalid("qmra"):
            self.answers([(f"stream {digits}", "lost"), (f"stream {bytewise(digits)}", "lost"),
                          (f"stream {digits}{good['hex']}", "lost"), (f"stream {digits} {good['hex']}", "lost"),
                          (f"stream {good['hex']}{digits}", f"{notice(good)}; lost")])

    def test_is_lost_at_the_header_alone(self):
        good = self.chosen("qmra", type=1)[0]["hex"]
        damaged = [good[:at] + "58" + good[at + 2:16] for at in range(0, 8, 2)]
        damaged += [good[:8] + version + good[10:16] for version in ("00", "03", "05", "FF")]
        damaged += [good[:10] + kind + length for kind in ("01", "09") for length in ("1601", "0080", "FFFF")]
        self.answers([(f"stream {digits}", "lost") for digits in damaged])

    def test_skips_the_longest_unknown_message(self):
        good = self.chosen("qmra", type=1)[0]
        for kind in ("00", "02", "03", "FF"):
            unknown = f"514D524104{kind}1501" + "EE" * 277
            self.answers([(f"stream {unknown}{good['hex']}", notice(good)),
                          (f"stream {unknown[:300]} {unknown[300:]}{good['hex']}", notice(good))])

    def test_decodes_streams(self):
        found = [stream for stream in self.vectors["streams"] if stream["from"] == "server"]
        self.assertTrue(found, "no streams from the server")
        notices = {vector["name"]: vector for vector in self.vectors["qmra"]}
        self.answers([(f"stream {' '.join(piece['hex'] for piece in stream['pieces'])}",
                       "; ".join(notice(notices[outcome["notice"]]) if "notice" in outcome else "lost"
                                 for outcome in stream["outcome"])) for stream in found])
