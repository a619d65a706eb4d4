# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A network of the run's own: nothing shows outside, and all of it is gone with the last process, however the run ends."""

import contextlib
import ctypes
import os
import pathlib
import shutil
import socket
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


def make_hosts(*hosts):
    """A bridge in a network of this run, and at each of its ports a host, of that name and address."""
    enter()
    call("mount", b"tmpfs", b"/run", b"tmpfs", 0, None)  # where the names of namespaces are kept
    ip("link", "add", "bridge", "type", "bridge")
    ip("link", "set", "bridge", "up")
    for name, address in hosts:
        ip("netns", "add", name)
        ip("link", "add", name, "type", "veth", "peer", "name", "uplink", "netns", name)
        ip("link", "set", name, "master", "bridge", "up")
        ip("-n", name, "address", "add", f"{address}/24", "dev", "uplink")
        # Of its own choice it would have another one in each run.
        hardware = "02:00:" + socket.inet_aton(address).hex(":")
        ip("-n", name, "link", "set", "uplink", "address", hardware)
        ip("-n", name, "link", "set", "uplink", "up")
        ip("-n", name, "link", "set", "lo", "up")


@contextlib.contextmanager
def on_host(name):
    """Sockets that are made inside belong to that host, also afterwards."""
    with open("/proc/self/ns/net", "rb") as here, open(f"/run/netns/{name}", "rb") as there:
        call("setns", there.fileno(), CLONE_NEWNET)
        try:
            yield
        finally:
            call("setns", here.fileno(), CLONE_NEWNET)


def skipped(what, reason):
    """The exit code of a run that could not be: a failure in CI."""
    print(f"{what} cannot be tested here: {reason}", file=sys.stderr)
    return 1 if os.environ.get("CI") == "true" else SKIPPED
