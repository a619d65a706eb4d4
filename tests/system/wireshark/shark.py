# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""tshark with the dissector, and what it shows."""

import collections
import os
import pathlib
import shutil
import subprocess
import xml.etree.ElementTree

DISSECTOR = pathlib.Path(__file__).resolve().parents[3] / "tools" / "wireshark" / "quillmere.lua"
PATIENCE = 100  # seconds, for one run

Expert = collections.namedtuple("Expert", "name text severity")
CHAT, NOTE = "Chat", "Note"


def hex_of(text):
    return text.replace(":", "").upper()


def int_of(text):
    return int(text, 0)


# How the fields that are no numbers are read.
READ = {"magic": str, "esn": hex_of, "suid": hex_of, "made_esn": hex_of, "reject": str, "address": str, "ignored": hex_of,
        "response_time": float}


class Shark:
    """The dissector lies in the personal folder for plugins of a user who has nothing else."""

    def __init__(self, folder):
        plugins = folder / "home" / ".local" / "lib" / "wireshark" / "plugins"
        plugins.mkdir(parents=True)
        shutil.copy(DISSECTOR, plugins)
        self.environment = {name: value for name, value in os.environ.items()
                            if not name.startswith(("XDG_", "WIRESHARK"))}
        self.environment.update(HOME=str(folder / "home"), LC_ALL="C.UTF-8", TZ="UTC")

    def run(self, *arguments):
        """What it says. It must not complain."""
        done = subprocess.run(["tshark", *map(str, arguments)], env=self.environment, capture_output=True, text=True,
                              timeout=PATIENCE, check=False)
        complaints = [line for line in done.stderr.splitlines() if not line.startswith("Running as user")]
        if done.returncode != 0 or complaints:
            raise AssertionError(f"tshark {arguments}: exit code {done.returncode}, {complaints}")
        return done.stdout

    def look(self, path, *options):
        """What it shows of each frame, by number. It reads twice, so that links to later frames are there."""
        details = self.run("-2", "-r", path, "-T", "pdml", *options)
        if "_ws.lua.error" in details:
            raise AssertionError(f"the dissector fails: {details[details.index('_ws.lua.error'):][:1000]}")
        packets = xml.etree.ElementTree.fromstring(details)
        infos = self.run("-2", "-r", path, "-T", "fields", "-e", "_ws.col.Protocol", "-e", "_ws.col.Info", *options)
        rows = [line.split("\t") for line in infos.splitlines()]
        return {number: Frame(packet, *row) for number, (packet, row) in enumerate(zip(packets, rows), 1)}


class Frame:
    """One packet: the messages of either protocol in it."""

    def __init__(self, packet, protocol, info):
        self.protocol, self.info = protocol, info
        self.messages = [Message(part) for part in packet.findall("proto") if part.get("name") in ("qmrs", "qmra")]
        self.other = [part.get("name") for part in packet if part.get("name") not in ("geninfo", "frame")]

    def only(self):
        if len(self.messages) != 1:
            raise AssertionError(f"{len(self.messages)} messages in a frame of one: {self.other}")
        return self.messages[0]


class Message:
    """values: the fields as tshark writes them, in order, by name; experts: what it says about them."""

    def __init__(self, part):
        self.protocol = part.get("name")
        self.values = collections.defaultdict(list)
        self.experts = []
        self.walk(part)

    def walk(self, part):
        for field in part.findall("field"):
            if field.get("name") == "_ws.expert":
                self.experts.append(self.expert(field))
                continue
            protocol, _, name = field.get("name").partition(".")
            if protocol == self.protocol:
                self.values[name].append(READ.get(name, int_of)(field.get("show")))
            self.walk(field)

    @staticmethod
    def expert(field):
        inner = {each.get("name"): each for each in field.findall("field")}
        name = next(name for name in inner if not name.startswith("_ws."))
        severity = inner["_ws.expert.severity"].get("showname").partition(": ")[2]
        return Expert(name, inner["_ws.expert.message"].get("show"), severity)

    def without(self, *names):
        """The values, but for those."""
        return {name: values for name, values in self.values.items() if name not in names}
