#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The example clients of one language: examples.py LANGUAGE QUILLMERE [TEST...]

Their codecs are held against docs/protocols.json, the programs against servers that do what a test wants and against
the built one. A test is named as Class.test_name. Exits with 77 where the language's tools are not installed, with 1
there when CI is true. Most of the time they wait for each other, so several tests run at once.
"""

import multiprocessing
import os
import sys
import unittest

sys.dont_write_bytecode = True

from program import LANGUAGES, CannotRun, Language  # noqa: E402
from applicationscenes import ApplicationScenes  # noqa: E402
from codec import Codec  # noqa: E402
from namespaces import skipped  # noqa: E402
from radioscenes import RadioScenes  # noqa: E402
from scene import Scene  # noqa: E402
from serverscenes import ServerScenes  # noqa: E402


AT_ONCE = 8


def run(name):
    """One test, in a process of its own; its name, and what has failed."""
    result = unittest.defaultTestLoader.loadTestsFromName(name, sys.modules[__name__]).run(unittest.TestResult())
    failure = "\n".join(text for _, text in result.failures + result.errors)
    print(f"{name}: {'FAILED' if failure else 'passed'}\n{failure}", end="", flush=True)
    return name, failure


def main():
    if len(sys.argv) < 3 or sys.argv[1] not in LANGUAGES:
        print(__doc__, file=sys.stderr)
        return 2
    name, quillmere, *chosen = sys.argv[1:]
    try:
        language = Language(name)
    except CannotRun as reason:
        return skipped(f"the {name} examples", reason)
    Scene.commands = language.commands
    ServerScenes.quillmere = os.path.abspath(quillmere)
    names = chosen or [f"{scenes.__name__}.{test}" for scenes in (Codec, RadioScenes, ApplicationScenes, ServerScenes)
                       for test in unittest.defaultTestLoader.getTestCaseNames(scenes)]
    with multiprocessing.get_context("fork").Pool(AT_ONCE) as pool:
        failed = [test for test, failure in pool.imap_unordered(run, names) if failure]
        pool.close()
        pool.join()
    print(f"{name}: {len(names)} tests, failed: {', '.join(failed) or 'none'}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
