# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A folder as its disk has it: what was synced is there; of the rest, anything may be.

Fed with the records of recorder.cpp. Of a file that is not synced each sector may be as any of its writes left it, and
the size as any write or truncation left it; an entry of a folder that is not synced (a file made, removed or renamed)
as any of its changes left it. A sector is old or new, never torn and never of another content.
"""

import collections
import os
import struct

SECTOR = 512

OPEN, CLOSE, WRITE, TRUNCATE, SYNC, UNLINK, RENAME, RECEIVED, SENT, STREAMED = range(1, 11)

Event = collections.namedtuple("Event", "operation descriptor number data")
HEADER = struct.Struct("=IiQQ")


def read_trace(path):
    events = []
    with open(path, "rb") as trace:
        while header := trace.read(HEADER.size):
            operation, descriptor, number, size = HEADER.unpack(header)
            events.append(Event(operation, descriptor, number, trace.read(size)))
    return events


def overwrite(content, offset, data):
    if len(content) < offset:
        content.extend(bytes(offset - len(content)))
    content[offset:offset + len(data)] = data


def resize(content, size):
    del content[size:]
    content.extend(bytes(size - len(content)))


class File:
    def __init__(self, content=b""):
        self.synced = bytearray(content)
        self.current = bytearray(content)
        self.waiting = []  # since the last sync: (offset, data), or (size, None) for a truncation

    def write(self, offset, data):
        overwrite(self.current, offset, data)
        self.waiting.append((offset, data))

    def truncate(self, size):
        resize(self.current, size)
        self.waiting.append((size, None))

    def sync(self):
        if self.waiting:
            self.synced = bytearray(self.current)
            self.waiting = []

    def after_power_cut(self, random):
        """With random None nothing came to the disk that was not synced."""
        if random is None or not self.waiting:
            return bytes(self.synced)
        content, sizes = bytearray(self.synced), [len(self.synced)]
        reached = {}  # sector: how many of the waiting changes it has seen
        for index, (offset, data) in enumerate(self.waiting):
            if data is None:
                sizes.append(offset)
                continue
            sizes.append(max(sizes[-1], offset + len(data)))
            while data:
                sector = offset // SECTOR
                part = data[:(sector + 1) * SECTOR - offset]
                if index < reached.setdefault(sector, random.randint(0, len(self.waiting))):
                    overwrite(content, offset, part)
                offset, data = offset + len(part), data[len(part):]
        resize(content, random.choice(sizes))
        return bytes(content)


class Disk:
    """One folder. What SQLite shares between processes (-shm) is not kept: it is rebuilt whenever it is opened."""

    def __init__(self, folder, contents):
        self.folder = str(folder)
        self.synced = {name: File(content) for name, content in contents.items()}
        self.current = dict(self.synced)
        self.waiting = []  # entries changed since the folder's last sync: (name, file or None)
        self.opened = {}  # by descriptor: a file, or the folder itself
        self.counts = collections.Counter()

    def apply(self, event):
        if event.operation == OPEN:
            self._open(event)
        elif event.operation == CLOSE:
            self.opened.pop(event.descriptor, None)
        elif event.operation in (WRITE, TRUNCATE, SYNC):
            self._change(self.opened[event.descriptor], event)
        elif event.operation == UNLINK:
            self._enter(self._name(event.data), None)
        elif event.operation == RENAME:
            before, after = map(self._name, event.data.split(b"\0"))
            file = self.current[before]
            self._enter(before, None)
            self._enter(after, file)

    def _name(self, path):
        return os.path.relpath(os.fsdecode(path), self.folder)

    def _open(self, event):
        name = self._name(event.data)
        if name == ".":
            self.opened[event.descriptor] = self
            return
        file = self.current.get(name)
        if file is None:
            file = File()
            self._enter(name, file)
        elif event.number & os.O_TRUNC:
            file.truncate(0)
        self.opened[event.descriptor] = file

    def _change(self, target, event):
        if event.operation == SYNC:
            self.counts["folder" if target is self else "file"] += 1
            target.sync()
        elif event.operation == WRITE:
            target.write(event.number, event.data)
        else:
            target.truncate(event.number)

    def _enter(self, name, file):
        if file is None:
            del self.current[name]
        else:
            self.current[name] = file
        self.waiting.append((name, file))

    def sync(self):
        self.synced = dict(self.current)
        self.waiting = []

    def after_power_cut(self, random):
        """The content of each file by name."""
        entries = dict(self.synced)
        if random:
            changes = collections.defaultdict(list)
            for name, file in self.waiting:
                changes[name].append(file)
            for name, files in changes.items():
                reached = random.randint(0, len(files))
                if reached:
                    entries[name] = files[reached - 1]
        return self._contents((name, file and file.after_power_cut(random)) for name, file in entries.items())

    def contents(self):
        """As the process sees it."""
        return self._contents((name, bytes(file.current)) for name, file in self.current.items())

    @staticmethod
    def _contents(entries):
        return {name: content for name, content in entries if content is not None and not name.endswith("-shm")}
