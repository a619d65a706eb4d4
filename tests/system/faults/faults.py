#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""Lets system calls of the server fail, one after the other: faults.py [OPTION...] QUILLMERE LIBRARY

Each call of each kind that the server makes in a scene (a start, a registration, ...) fails with each of the errors that
it can have, once and for good. --only takes the name of a case, or a pattern of them, such as
registration/persist/pwrite/data/EIO/3/once or 'start/*/EMFILE/*'; --every takes every so manieth of them.
"""

import argparse
import collections
import fnmatch
import itertools
import multiprocessing
import os
import pathlib
import sys
import time

sys.dont_write_bytecode = True
SYSTEM_TESTS = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(SYSTEM_TESTS), str(SYSTEM_TESTS / "crash")]

from control import SHORT  # noqa: E402
from foreground import memory_folder  # noqa: E402
from scenes import LIVE, SCENES, WHOLE_LIFE, Fault, Life, Live  # noqa: E402
from verdict import verdict  # noqa: E402
import world  # noqa: E402
from world import Crashed, Lost, World, make_template  # noqa: E402

MODES = ("persist", "wal")
ERRORS = {
    "open": ("EIO", "ENOSPC", "EINTR", "ENOMEM", "EMFILE"),
    "write": ("EIO", "ENOSPC", "EINTR", SHORT),
    "pwrite": ("EIO", "ENOSPC", "EINTR", SHORT),
    "fsync": ("EIO", "ENOSPC", "EINTR"),
    "fdatasync": ("EIO", "ENOSPC", "EINTR"),
    "ftruncate": ("EIO", "ENOSPC", "EINTR"),
    "unlink": ("EIO", "ENOMEM"),
    "sendmsg": ("ENOMEM", "EINTR", "EIO"),
    "send": ("ENOMEM", "EINTR", "EIO", SHORT),
    "recvmsg": ("ENOMEM", "EINTR", "EIO"),
    "read": ("EIO", "EINTR", "ENOMEM", SHORT),
    "pread": ("EIO", "EINTR", "ENOMEM", SHORT),
    "accept4": ("EMFILE", "ENOMEM", "EINTR", "EIO"),
    "mmap": ("ENOMEM", "EIO"),
    "fcntl": ("EIO", "EINTR", "ENOMEM"),
    "unlock": ("EIO", "ENOMEM"),
}
PORTS_EACH = 200
CHUNK = 12  # cases that one process plays with the same server


class Case(collections.namedtuple("Case", "scene mode fault")):
    def __str__(self):
        fault = self.fault
        return "/".join((self.scene, self.mode, fault.call, fault.target, fault.error, str(fault.first),
                         "good" if fault.for_good else "once"))


Result = collections.namedtuple("Result", "case hits crashed lost outcome")


class Stage:
    """Plays cases, each with the server that it needs."""

    def __init__(self, program, interposer, templates):
        self.program = program
        self.interposer = interposer
        self.templates = templates
        self.live = None
        self.folder = memory_folder()
        self.worlds = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.forget()
        self.folder.cleanup()

    def world(self, mode, template):
        self.worlds += 1
        return World(self.program, self.interposer, pathlib.Path(self.folder.name) / str(self.worlds), mode, template)

    def forget(self):
        if self.live:
            self.live.world.close()
            self.live = None

    def play(self, scene, mode, fault=None):
        if scene in LIVE:
            if not self.live or self.live.world.mode != mode:
                self.forget()
                self.live = Live(self.world(mode, self.templates[mode]))
            return self.live.play(scene, fault)
        life = Life(self.world(mode, None if scene == "first-start" else self.templates[mode]))
        try:
            return life.play(scene, fault)
        finally:
            life.world.close()

    def judge(self, case):
        outcome = None
        try:
            _, outcome = self.play(case.scene, case.mode, case.fault)
            wrong = verdict(case, outcome)
            result = Result(case, outcome.hits, "", wrong, outcome)
        except Crashed as failure:
            result = Result(case, 1, str(failure), "", outcome)
        except (Lost, AssertionError, OSError, KeyError) as failure:
            result = Result(case, 1, "", f"{type(failure).__name__}: {failure}", outcome)
        if result.crashed or result.lost:
            self.forget()
        return result


def take_ports(numbers):
    """For a process of its own."""
    first = numbers.get()
    world.PORTS = itertools.cycle(range(first, first + PORTS_EACH))


def play_chunk(arguments):
    program, interposer, templates, cases = arguments
    with Stage(program, interposer, templates) as stage:
        return [stage.judge(case) for case in cases]


def all_cases(counts):
    """counts: the calls of each scene and mode."""
    for (scene, mode), calls in counts.items():
        for (call, target), number in sorted(calls.items()):
            if call == "unlock" and mode == "wal":
                continue  # SQLite takes no notice, and never gets that lock again: nothing that Linux does
            for error in ERRORS[call]:
                for first in range(1, number + 1):
                    for for_good in (False, True):
                        yield Case(scene, mode, Fault(call, target, error, first, for_good))


def count_calls(program, interposer, templates, scenes):
    counts = {}
    with Stage(program, interposer, templates) as stage:
        for mode in MODES:
            for scene in scenes:
                if scene == "first-start" and mode != MODES[0]:
                    continue  # a new database has the default mode
                counts[scene, mode] = stage.play(scene, mode)[0]
                if scene in LIVE:  # the first of its kind may make more calls than the later ones
                    counts[scene, mode] = stage.play(scene, mode)[0]
    return counts


def chunks(cases):
    """Of one kind of scenes and one mode each."""
    groups = collections.defaultdict(list)
    for case in cases:
        groups[case.scene in WHOLE_LIFE, case.mode].append(case)
    for group in groups.values():
        for begin in range(0, len(group), CHUNK):
            yield group[begin:begin + CHUNK]


def brief(records):
    """How often each; of those that belong to the scenes only the beginning."""
    return dict(sorted(collections.Counter(
        " ".join(record.split()[:5:4]) if record.startswith("Radio") else " ".join(record.split()[:6])
        for record in records).items()))


def show(results):
    """What came of the cases, those that came to the same put together."""
    kinds = collections.defaultdict(list)
    for result in results:
        if result.outcome:
            fault, outcome = result.case.fault, result.outcome
            key = (result.case.scene, fault.call, fault.target, fault.error, "good" if fault.for_good else "once",
                   str(brief(outcome.records)), "later", str(brief(outcome.later)),
                   "stored" if outcome.stored else "-", "settled" if outcome.settled else "-", *outcome.notes)
            kinds[key].append(f"{result.case.mode}:{fault.first}")
    for key, numbers in sorted(kinds.items()):
        print(*key, len(numbers), *numbers[:6])


def main():
    arguments = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    arguments.add_argument("program")
    arguments.add_argument("interposer")
    arguments.add_argument("--only", default="*", help="a case, or a pattern of them")
    arguments.add_argument("--every", type=int, default=1, help="plays every so manieth case")
    arguments.add_argument("--jobs", type=int, default=12, help="servers at a time; they wait most of the time")
    arguments.add_argument("--show", action="store_true", help="what came of each")
    options = arguments.parse_args()
    began = time.monotonic()
    program, interposer = os.path.abspath(options.program), os.path.abspath(options.interposer)
    # Two runs at a time hardly meet.
    first_port = world.FIRST_PORT + os.getpid() * 331 % (world.LAST_PORT - world.FIRST_PORT - (options.jobs + 1) * PORTS_EACH)
    world.PORTS = itertools.cycle(range(first_port, first_port + PORTS_EACH))
    first_port += PORTS_EACH
    with memory_folder() as folder:
        templates = {mode: make_template(program, interposer, pathlib.Path(folder) / mode, mode) for mode in MODES}
    scenes = [scene for scene in SCENES if fnmatch.fnmatchcase(scene, options.only.split("/", maxsplit=1)[0])]
    counts = count_calls(program, interposer, templates, scenes)
    cases = [case for case in all_cases(counts) if fnmatch.fnmatchcase(str(case), options.only)]
    chosen = cases[::options.every]
    print(f"{len(chosen)} of {len(cases)} cases (every {options.every}.)", flush=True)
    results = []
    work = [(program, interposer, templates, chunk) for chunk in chunks(chosen)]
    numbers = multiprocessing.Queue()
    for job in range(options.jobs):
        numbers.put(first_port + job * PORTS_EACH)
    with multiprocessing.Pool(options.jobs, take_ports, [numbers]) as pool:
        for chunk in pool.imap_unordered(play_chunk, work):
            for result in chunk:
                results.append(result)
                if result.crashed or result.lost:
                    print(f"FAILED: {result.crashed or result.lost}\n  again: scripts/faults --only '{result.case}'",
                          flush=True)
    if options.show:
        show(results)
    injected = sum(result.hits > 0 for result in results)
    crashed = sum(bool(result.crashed) for result in results)
    lost = sum(bool(result.lost) for result in results)
    print(f"{len(results) - injected} cases did not come to their call; {time.monotonic() - began:.0f} s")
    print(f"faults: {injected} injected, {crashed} crashed, {lost} lost")
    sys.exit(1 if crashed or lost or not injected else 0)


if __name__ == "__main__":
    main()
