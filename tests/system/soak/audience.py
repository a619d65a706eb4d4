# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The applications of a soak: one that follows every change, slow readers, and visitors."""

import contextlib
import select
import socket
import struct
import time

from wire import Application, report, take_notices

ALL = 1 << 20  # bytes that are read at once
SLOW_BUFFER, SLOW_PORTION, SLOW_PAUSE = 4096, 2048, 0.5  # bytes, bytes and seconds
STAY = 3.0  # seconds that a visitor stays, at most


class Viewer(Application):
    """Keeps a table as docs/protocols.md tells an application to. follow(notice of the radio before it, notice) is
    called with each notice."""

    def __init__(self, server_port, follow=None):
        super().__init__(server_port)
        self.view = {}
        self.follow = follow
        self.has_ended = False
        self.due = self.leaves = time.monotonic()

    def read(self, portion=ALL):
        try:
            data = self.socket.recv(portion)
            self.has_ended = self.has_ended or not data
            self.stream += data
        except BlockingIOError:
            pass
        except ConnectionError:
            self.has_ended = True
        self.take(take_notices(self.stream))

    def take(self, notices):
        for notice in notices:
            before = self.view.get(notice.esn)
            if notice.pending or notice.availability:
                self.view[notice.esn] = notice
            else:
                self.view.pop(notice.esn, None)
            if self.follow:
                self.follow(before, notice)

    def break_off(self):
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


class Audience:
    """Of one life of the server. The visits are that many a second."""

    def __init__(self, server_port, chance, follow, slow, visits):
        self.port = server_port
        self.random = chance
        self.visits = visits
        self.observer = Viewer(server_port, follow)
        self.slow = []
        for _ in range(slow):
            viewer = Viewer(server_port)
            viewer.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, SLOW_BUFFER)
            self.slow.append(viewer)
        self.visitors = []
        self.visited = time.monotonic()

    def close(self):
        for viewer in (self.observer, *self.slow, *self.visitors):
            viewer.__exit__()

    def count(self):
        return 1 + len(self.slow) + len(self.visitors)

    def go_on(self):
        now = time.monotonic()
        self.observer.read()
        for viewer in self.slow:
            if viewer.due <= now:
                viewer.due = now + SLOW_PAUSE
                viewer.read(SLOW_PORTION)
        for viewer in [viewer for viewer in self.visitors if viewer.leaves <= now]:
            self.visitors.remove(viewer)
            # A third reads what it has been sent, a third leaves it, a third does not even say that it leaves.
            manner = self.random.randrange(3)
            if manner == 0:
                viewer.read()
            (viewer.break_off if manner == 1 else viewer.__exit__)()

    def invite(self):
        """Has visitors come that are due."""
        now = time.monotonic()
        while self.visits and self.visited + 1 / self.visits <= now:
            self.visited += 1 / self.visits
            viewer = Viewer(self.port)
            viewer.leaves = now + self.random.uniform(0, STAY)
            self.visitors.append(viewer)

    def dismiss(self):
        for viewer in self.visitors:
            viewer.__exit__()
        self.visitors.clear()
        self.visited = time.monotonic()

    def report(self, radio):
        with contextlib.suppress(OSError):  # the server may just be going
            self.observer.socket.send(report(radio.esn, radio.state.address))

    def read_all(self):
        for viewer in (self.observer, *self.slow):
            viewer.read()

    def have_ended(self):
        return any(viewer.has_ended for viewer in (self.observer, *self.slow, *self.visitors))

    def read_rest(self):
        """Of a server that is gone."""
        self.observer.take(self.observer.receive_rest())

    def views(self):
        """Of those that stay, by name."""
        return {"observer": self.observer.view} | {f"slow reader {at}": one.view for at, one in enumerate(self.slow)}


def wait(readers, seconds):
    select.select(readers, [], [], seconds)
