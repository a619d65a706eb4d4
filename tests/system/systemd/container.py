# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A systemd of the test's own, booted in a container on an overlay of the running root."""

import os
import shutil
import subprocess
import tempfile
import time


class CannotBoot(Exception):
    """This machine cannot run the container; the text says why."""


class Container:
    """With-block: the container runs inside it. Everything it wrote is gone afterwards."""

    NAMESPACES = ["--mount", "--uts", "--ipc", "--net", "--pid", "--cgroup"]

    def __init__(self):
        self.folder = None
        self.mounts = []
        self.nspawn = None
        self.leader = None

    def __enter__(self):
        if os.geteuid() != 0:
            raise CannotBoot("needs root")
        for tool in ("systemd-nspawn", "nsenter", "setpriv"):
            if not shutil.which(tool):
                raise CannotBoot(f"needs {tool}")
        self.folder = tempfile.mkdtemp(prefix="quillmere-systemd-", dir="/var/tmp")
        try:
            self._make_root()
            self._boot()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        if self.leader:
            os.kill(self.leader, 9)  # its init: everything inside ends with it
        if self.nspawn:
            if not self.leader:
                self.nspawn.kill()
            self.nspawn.wait()
        for mount in reversed(self.mounts):
            subprocess.run(["umount", "--lazy", mount], check=False)
        if self.folder:
            shutil.rmtree(self.folder)

    def _make_root(self):
        def mount(*arguments):
            if subprocess.run(["mount", *arguments], capture_output=True, check=False).returncode:
                return False
            self.mounts.append(arguments[-1])
            return True

        self.root = os.path.join(self.folder, "root")

        def overlay():
            for name in ("upper", "work", "root"):
                os.makedirs(os.path.join(self.folder, name), exist_ok=True)
            options = "lowerdir=/,upperdir={0}/upper,workdir={0}/work".format(self.folder)
            return mount("-t", "overlay", "overlay", "-o", options, self.root)

        # An overlay's upper folder cannot lie on every file system; it can on a memory file system.
        if not overlay() and not (mount("-t", "tmpfs", "tmpfs", self.folder) and overlay()):
            raise CannotBoot("no overlay can be mounted")
        # A quiet machine with an identity of its own, on which nobody has installed the service.
        with open(self.path("/etc/machine-id"), "w", encoding="ascii"):
            pass
        units = self.path("/etc/systemd/system")
        for name in os.listdir(units):
            if name.endswith(".wants") or name.startswith(("quill-mere", "quillmere-monitor")):
                subprocess.run(["rm", "-rf", "--", os.path.join(units, name)], check=True)
        for name in ("quill-mere", "quillmere-monitor"):  # of packages
            subprocess.run(["rm", "-f", "--", self.path(f"/lib/systemd/system/{name}.service")], check=True)
        subprocess.run(["ln", "-sf", "/lib/systemd/system/multi-user.target", units + "/default.target"], check=True)
        subprocess.run(["rm", "-rf", "--", self.path("/var/lib/Brackwater"), self.path("/var/log/journal")], check=True)

    def _boot(self):
        console = open(os.path.join(self.folder, "console"), "wb")  # pylint: disable=consider-using-with
        with console:
            # pylint: disable-next=consider-using-with
            self.nspawn = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "systemd-nspawn", "--boot", "--directory", self.root,
                 "--private-network", "--register=no", "--keep-unit", "--machine=quillmere-test", "--console=pipe"],
                stdin=subprocess.DEVNULL, stdout=console, stderr=subprocess.STDOUT, start_new_session=True)
        deadline = time.monotonic() + 90
        while time.monotonic() < deadline and self.nspawn.poll() is None:
            with open(f"/proc/{self.nspawn.pid}/task/{self.nspawn.pid}/children", encoding="ascii") as children:
                pids = children.read().split()
            if pids:
                self.leader = int(pids[0])
                state = self.run("systemctl", "is-system-running").stdout.strip()
                if state in (b"running", b"degraded"):
                    return
            time.sleep(0.1)
        with open(os.path.join(self.folder, "console"), "rb") as text:
            last = text.read()[-500:].decode(errors="replace")
        raise CannotBoot(f"systemd does not boot in systemd-nspawn: {last}")

    def restart(self):
        """As the machine restarts: it shuts down, and the same root boots again."""
        self.run("systemctl", "reboot")
        self.nspawn.wait(timeout=120)
        self.leader = None
        self._boot()

    def path(self, inside):
        """Where a file of the container lies for this process."""
        return self.root + inside

    def run(self, *command, directory="/", user=None, environment=None):
        """Runs a command inside, to its end; at most two minutes."""
        line = ["nsenter", "--target", str(self.leader), *self.NAMESPACES, "--", "env", "-i", "-C", directory,
                "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/"]
        line += [f"{name}={value}" for name, value in (environment or {}).items()]
        if user:
            line += ["setpriv", f"--reuid={user}", "--regid=nogroup", "--clear-groups"]
        return subprocess.run([*line, *command], stdin=subprocess.DEVNULL, capture_output=True, timeout=120, check=False)

    def on_its_network(self, *command):
        """Runs a command of this machine on the container's network."""
        return subprocess.run(["nsenter", "--target", str(self.leader), "--net", "--", *command],
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=120, check=False)
