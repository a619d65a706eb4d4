#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""The example clients of one language: examples.py LANGUAGE QUILLMERE [TEST...]

Their codecs are held against docs/protocols.json, the programs against servers that do what a test wants and against
the built one. A test is named as Class.test_name. Exits with 77 where the language's tools are not installed, with 1
there when CI is true.
"""

import os
import signal
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
    loader = unittest.defaultTestLoader
    if chosen:
        tests = loader.loadTestsFromNames(chosen, sys.modules[__name__])
    else:
        tests = unittest.TestSuite(map(loader.loadTestsFromTestCase,
                                       (Codec, RadioScenes, ApplicationScenes, ServerScenes)))
    result = unittest.TextTestRunner(verbosity=2).run(tests)
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    sys.exit(main())
