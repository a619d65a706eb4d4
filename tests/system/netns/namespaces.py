# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A network of the run's own: nothing shows outside, and all of it is gone with the last process, however the run ends."""

import ctypes
import os
import pathlib
import shutil
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

from foreground import libc  # noqa: E402

SKIPPED = 77

CLONE_NEWNS = 0x00020000
CLONE_NEWNET = 0x40000000
MS_BIND = 1 << 12
MS_PRIVATE_RECURSIVE = (1 << 18) | (1 << 14)


class CannotRun(Exception):
    """This machine cannot make the network."""


def call(function, *arguments):
    if getattr(libc, function)(*arguments) != 0:
        raise CannotRun(f"{function}: {os.strerror(ctypes.get_errno())}")


def ip(*arguments):
    result = subprocess.run(["ip", *arguments], capture_output=True, text=True, check=False)
    if result.returncode != 0:
        raise CannotRun(f"ip {' '.join(arguments)}: {result.stderr.strip()}")


def enter():
    """Into an empty network, with mounts that nobody else sees."""
    if os.geteuid() != 0:
        raise CannotRun("needs root")
    if not shutil.which("ip"):
        raise CannotRun("needs iproute2")
    call("unshare", CLONE_NEWNS | CLONE_NEWNET)
    call("mount", b"none", b"/", None, MS_PRIVATE_RECURSIVE, None)
    ip("link", "set", "lo", "up")


def skipped(what, reason):
    """The exit code of a run that could not be: a failure in CI."""
    print(f"{what} cannot be tested here: {reason}", file=sys.stderr)
    return 1 if os.environ.get("CI") == "true" else SKIPPED
