#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The example clients, and one of the tools, on hosts of their own: network.py QUILLMERE LANGUAGE...

The hosts are network namespaces, one for the server and one for each language. A discovery request reaches the radio at
the server's port number and is answered; a radio without a network goes on until it has one; an application notices by
keep-alive that it is cut off from a server that says nothing, and comes back. All go through it at once.
Exits with 77 where namespaces cannot be made or a language's tools are not installed, with 1 there when CI is true.
"""

import os
import pathlib
import signal
import sys
import tempfile
import threading
import traceback

sys.dont_write_bytecode = True

from program import LANGUAGES, CannotRun, Language, Program  # noqa: E402
from foreground import Server  # noqa: E402
from namespaces import call, enter, ip, skipped  # noqa: E402
from wire import PATIENCE  # noqa: E402

PORT = 9361
SERVER = "10.77.0.1"
# TCP may take up to 20 s and ten probes until it gives up, and the pauses between attempts up to a minute.
LONG_PATIENCE = 8 * PATIENCE


class Host:
    """At a port of a bridge."""

    def __init__(self, name, address):
        self.name, self.address = name, address
        ip("netns", "add", name)
        ip("link", "add", name, "type", "veth", "peer", "name", "uplink", "netns", name)
        ip("-n", name, "address", "add", f"{address}/24", "dev", "uplink")
        ip("-n", name, "link", "set", "uplink", "up")
        ip("-n", name, "link", "set", "lo", "up")
        ip("link", "set", name, "up")
        self.connect()

    def launcher(self):
        return "ip", "netns", "exec", self.name

    def connect(self):
        ip("link", "set", self.name, "master", "bridge")

    def cut_off(self):
        """Nobody is told, at either end: the cable is still in."""
        ip("link", "set", self.name, "nomaster")

    def has_a_network(self, state):
        ip("-n", self.name, "link", "set", "uplink", "up" if state else "down")


def make_network():
    enter()
    call("mount", b"tmpfs", b"/run", b"tmpfs", 0, None)  # where the names of namespaces are kept
    ip("link", "add", "bridge", "type", "bridge")
    ip("link", "set", "bridge", "up")


class Story:
    """Of one host, in a thread of its own."""

    def __init__(self, number, name):
        self.name = name
        self.host = Host(name, f"10.77.0.{10 + number}")
        self.programs = []
        self.failure = None
        self.thread = threading.Thread(target=self.run)

    def start(self, *command):
        program = Program([*self.host.launcher(), *command])
        self.programs.append(program)
        return program

    def run(self):
        try:
            self.tell()
        except Exception:
            self.failure = traceback.format_exc()
        finally:
            for program in self.programs:
                program.kill()


class Example(Story):
    """In one language."""

    def __init__(self, number, name):
        super().__init__(number, name)
        self.language = Language(name)
        self.esn = f"0011AABB22CC33{number:02X}"

    def program(self, name, *options):
        return self.start(*self.language.commands[name], SERVER, str(PORT), *options)

    def tell(self):
        registering = f"registering {self.esn} with {SERVER}:{PORT}"
        self.host.has_a_network(False)
        radio = self.program("radio", f"esn={self.esn}", f"suid=123456789ABC{self.host.address[-2:]}")
        radio.says(registering, "no acknowledgement, again")
        self.host.has_a_network(True)
        radio.is_registered(self.esn)

        # The server looks for a radio that is reported, and finds it.
        application = self.program("application", f"report={self.esn}@{self.host.address}")
        application.says(f"connected to {SERVER}:{PORT}")
        application.says_at_last(f"{self.esn} registered {self.host.address} 1,3")
        application.says_at_last(f"reported {self.esn} at {self.host.address}")
        application.says_at_last(f"{self.esn} unconfirmed {self.host.address} 1,3")
        radio.says("discovery request", registering)
        radio.is_registered(self.esn)
        application.says_at_last(f"{self.esn} registered {self.host.address} 1,3")
        radio.ends("deregistered")
        application.says_at_last(f"{self.esn} gone .*")

        self.host.cut_off()
        application.says_at_last("disconnected: .+", LONG_PATIENCE)
        self.host.connect()
        application.says_at_last(f"connected to {SERVER}:{PORT}", LONG_PATIENCE)
        application.says_at_last("table complete: .*")
        application.end()


class Watch(Story):
    """quillmere-watch, beside the server's program."""

    def __init__(self, number, quillmere):
        super().__init__(number, "watch")
        self.command = f"{quillmere}-watch"

    def tell(self):
        watch = self.start(self.command, "--server", f"{SERVER}:{PORT}", "--json")
        watch.says_at_last('.*"event":"connected".*')
        watch.says_at_last('.*"event":"snapshot".*')
        self.host.cut_off()
        watch.says_at_last('.*"event":"disconnected".*', LONG_PATIENCE)
        self.host.connect()
        watch.says_at_last('.*"event":"connected".*', LONG_PATIENCE)


def run(quillmere, names, folder):
    server = Server(quillmere, folder, "minimumDiscoveryPeriod=0\n", Host("server", SERVER).launcher())
    stories = [Example(number, name) for number, name in enumerate(names)] + [Watch(len(names), quillmere)]
    server.start()
    try:
        for story in stories:
            story.thread.start()
        for story in stories:
            story.thread.join()
    finally:
        server.kill()
    failed = [story for story in stories if story.failure]
    for story in failed:
        print(f"FAILED: {story.name}\n{story.failure}", file=sys.stderr)
    return 1 if failed else 0


def main():
    quillmere, *names = sys.argv[1:] or [""]
    if not names or not set(names) <= set(LANGUAGES):
        print(__doc__, file=sys.stderr)
        return 2
    try:
        make_network()
        with tempfile.TemporaryDirectory(prefix="quillmere-") as folder:
            return run(os.path.abspath(quillmere), names, pathlib.Path(folder))
    except CannotRun as reason:
        return skipped("the examples between hosts", reason)


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    sys.exit(main())
