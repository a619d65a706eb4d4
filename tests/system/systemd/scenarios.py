# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""What an administrator does with the service, step by step. Each scenario begins with nothing installed."""

import json
import os
import shutil
import sqlite3
import stat
import struct
import subprocess
import sys
import time

UNIT = "quill-mere.service"
UNIT_FILE = "/etc/systemd/system/" + UNIT
DATA = "/var/lib/Brackwater/Quill Mere"
SOCKET = "/run/quill-mere/control"
PROGRAM = "/opt/quillmere/quillmere"
ACCOUNT = "quillmere-radio"
STRANGER = "quillmere-other"
ESN = "0102030405060708"
NOT_RUNNING = "is installed and not running\n\n"
RUNNING = "is installed and running\n\n"
ABSENT = "is not installed and not running\n\n"


class Failure(Exception):
    """A check that did not hold."""


class Host:
    """The container with the program in it."""

    def __init__(self, container, program, show):
        self.container = container
        self.program = program
        self.show = show
        self.place(PROGRAM)
        for user in (ACCOUNT, STRANGER):
            container.run("useradd", "--system", "--no-create-home", "--shell", "/usr/sbin/nologin", user)

    def place(self, path):
        there = self.container.path(path)
        os.makedirs(os.path.dirname(there), exist_ok=True)
        shutil.copy2(self.program, there)

    def check(self, holds, what, detail=""):
        what = what.encode(errors="backslashreplace").decode()  # a path that is not UTF-8
        if not holds:
            journal = self.container.run("journalctl", "--no-pager", "--lines=40").stdout.decode(errors="replace")
            raise Failure(f"{what}\n{detail}\n{journal}")
        if self.show:
            print(f"    {what}")

    def wait(self, condition, what, seconds=60):
        deadline = time.monotonic() + seconds
        while not condition():
            self.check(time.monotonic() < deadline, f"in time: {what}")
            time.sleep(0.1)
        self.check(True, what)

    def quillmere(self, *arguments, out="", err="", code=0, program=PROGRAM, **how):
        """Runs the program, which must print exactly this and exit with this code."""
        result = self.container.run(program, *arguments, **how)
        expected = (out.encode("latin-1"), err.encode("latin-1"), code % 256)
        self.check((result.stdout, result.stderr, result.returncode) == expected,
                   f"{program} {' '.join(arguments)}", f"expected {expected}\ngot {result}")

    def status(self, text, program=PROGRAM, **how):
        self.quillmere("-v", out=f"The service\n\tQuill Mere\n\t{program}\n\n{text}", program=program, **how)

    def install(self, *account, program=PROGRAM, called=None, **how):
        self.quillmere("-i", *account, program=called or program,
                       out=f"The service Quill Mere has been installed under: {program}\n", **how)

    def property(self, name):
        shown = self.container.run("systemctl", "show", "--value", "--property=" + name, UNIT)
        return shown.stdout.decode().strip()

    def wait_for_state(self, state):
        self.wait(lambda: self.property("ActiveState") == state, f"the unit is {state}")

    def start(self, *parameters, **how):
        self.quillmere(*parameters, **how)
        self.wait_for_state("active")

    def stop(self):
        self.container.run("systemctl", "stop", UNIT)
        self.wait_for_state("inactive")

    def radio(self, *arguments):
        script = os.path.join(os.path.dirname(os.path.realpath(__file__)), "radio.py")
        result = self.container.on_its_network(sys.executable, script, *arguments)
        self.check(result.returncode == 0, f"radio {' '.join(arguments)}", str(result))

    def records(self):
        """The service's own records, by their fields."""
        lines = self.container.run("journalctl", "--output=json", "SYSLOG_IDENTIFIER=Quill Mere").stdout
        return [json.loads(line) for line in lines.splitlines()]

    def has_record(self, text, **fields):
        self.wait(lambda: any(r["MESSAGE"].startswith(text) for r in self.records()), f"record {text!r}", 20)
        record = [r for r in self.records() if r["MESSAGE"].startswith(text)][-1]
        seen = {name: record.get(name) for name in fields}
        self.check(seen == fields, f"its fields {fields}", str(record))

    def exists(self, path):
        return os.path.lexists(self.container.path(path))

    def reset(self):
        self.container.run("systemctl", "stop", UNIT)
        if self.exists(UNIT_FILE):
            self.quillmere("-u", out="The service Quill Mere has been uninstalled.\n")
        self.check(not self.exists("/run/quill-mere"), "the runtime directory is gone")
        shutil.rmtree(self.container.path(DATA), ignore_errors=True)


def whole_life(host):
    """install, start, register, control, stop and uninstall"""
    host.status(ABSENT)
    host.quillmere(err="The service Quill Mere could not start\n", code=-4)
    host.quillmere("-u", err="The service Quill Mere is not installed\n")
    host.check(host.records() == [], "a failed console start leaves no record")

    host.install()
    host.quillmere("-i", err="The service Quill Mere is already installed\n")
    verify = host.container.run("systemd-analyze", "verify", UNIT_FILE)
    host.check(verify.returncode == 0 and not verify.stderr, "systemd finds no fault in the unit", str(verify))
    enabled = host.container.run("systemctl", "is-enabled", UNIT).stdout.strip()
    host.check(enabled == b"disabled", "it is for manual start")
    host.check(host.property("Description") == "Quill Mere 1.38.3 Build 27Maintains a list of radios on the P25 "
               "system and their IP addresses", "the unit has the service's description")
    host.status(NOT_RUNNING)

    host.start("first parameter", "Größe %n $HOME")
    host.status(RUNNING)
    host.check(host.property("StatusText") == "Running", "systemd knows that it runs")
    host.check(not host.exists("/run/quill-mere/start-parameters"), "the start parameters were taken")
    host.quillmere(err="The service Quill Mere could not start\n", code=-4)
    host.has_record("Quill Mere 1.38.3.27\n Service started with the following configuration:\n", PRIORITY="6",
                    EVENT_SOURCE="Quill Mere", EVENT_TYPE="success", EVENT_ID="3221225473", EVENT_CATEGORY="0",
                    EVENT_DATA=None, _SYSTEMD_UNIT=UNIT)

    host.radio("register", ESN)
    host.has_record(f"Radio {ESN} with SUID", PRIORITY="6", EVENT_ID="3221225473")
    host.radio("garbage")
    host.has_record("Protocol error: invalid length", PRIORITY="4", EVENT_TYPE="warning", EVENT_ID="0",
                    EVENT_CATEGORY="0")

    pid = host.property("MainPID")
    for arguments in (["-c", "72"], ["-c"], ["-c", "128"], ["-p"], ["-r"]):
        host.quillmere(*arguments)
    host.check(host.property("StatusText") == "Running" and host.property("MainPID") == pid,
               "a user code and a refused pause change nothing")

    host.quillmere("-t")
    host.status(NOT_RUNNING)
    host.check(host.property("Result") == "success", "a stopped service has not failed")
    host.has_record("Service stopped", PRIORITY="6", EVENT_TYPE="success")
    host.quillmere("-u", out="The service Quill Mere has been uninstalled.\n")
    host.status(ABSENT)
    for path in (UNIT_FILE, UNIT_FILE + ".d", "/run/quill-mere"):
        host.check(not host.exists(path), f"{path} is gone")
    host.check(host.property("LoadState") == "not-found", "systemd has forgotten the unit")


def killed(host):
    """killed with signal 9, the service comes back with its table"""
    host.install()
    host.start()
    host.radio("register", ESN)
    for _ in range(3):
        before = host.property("MainPID")
        host.container.run("kill", "-9", before)
        host.wait(lambda old=before: host.property("ActiveState") == "active" and
                  host.property("MainPID") not in ("0", old), "another process runs")
        host.radio("follow", ESN)
    database = sqlite3.connect(host.container.path(DATA + "/qmr.db"))
    rows = database.execute("SELECT hex(esn) FROM subscribers").fetchall()
    database.close()
    host.check(rows == [(ESN,)], "its row is in the database", str(rows))
    host.quillmere("-c", "5")
    host.quillmere("-t")


def owner(host, path):
    found = host.container.run("stat", "--format=%U %a", path).stdout.decode().split()
    return tuple(found)


def with_account(host):
    """under an account, which owns its data and its control socket"""
    host.quillmere("-i", "nobody-of-that-name", "password", code=-1,
                   err="The service Quill Mere could not be installed\n")
    host.check(not host.exists(UNIT_FILE), "no unit for an account that does not exist")
    host.install(ACCOUNT, "secret")
    unit = host.container.run("cat", UNIT_FILE).stdout
    host.check(b"secret" not in unit, "the password is nowhere in the unit")
    host.start("parameter")
    host.check(host.property("User") == ACCOUNT, "the unit has the account")
    host.check(host.container.run("stat", "--format=%U", "/proc/" + host.property("MainPID")).stdout.strip() ==
               ACCOUNT.encode(), "the process runs under it")
    for path, mode in ((DATA, "700"), (DATA + "/qmr.db", "600"), ("/run/quill-mere", "700"), (SOCKET, "600")):
        host.check(owner(host, path) == (ACCOUNT, mode), f"{path} belongs to the account alone",
                   str(owner(host, path)))
    host.radio("register", ESN)
    host.has_record(f"Radio {ESN} with SUID", EVENT_ID="3221225473")

    probe = ("import socket,struct,sys; s=socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET); s.settimeout(20); "
             "s.connect(sys.argv[1]); s.send(struct.pack('=I', int(sys.argv[2]))); "
             "sys.stdout.buffer.write(s.recv(100))")

    def ask(user, control):
        return host.container.run("/usr/bin/python3", "-c", probe, SOCKET, str(control), user=user)

    def answer(error):
        return struct.pack("=4I", error, 4, 1, 0)

    host.check(ask(ACCOUNT, 200).stdout == answer(0), "the account can send a user code")
    host.check(ask(ACCOUNT, 2).stdout == answer(1052), "a pause is refused with 1052")
    host.check(ask(ACCOUNT, 999).stdout == answer(87), "an unknown control is refused")
    host.check(b"PermissionError" in ask(STRANGER, 200).stderr, "nobody else can open the control socket")
    host.container.run(PROGRAM, "-t", user=STRANGER)
    host.check(host.property("ActiveState") == "active", "nobody else can stop the service")
    host.status(RUNNING, user=STRANGER)
    host.quillmere("-i", user=STRANGER, err="The service Quill Mere is already installed\n")
    host.quillmere("-u", user=STRANGER, err="The service Quill Mere could not be uninstalled\n", code=-1)
    host.stop()

    host.quillmere("-u", out="The service Quill Mere has been uninstalled.\n")
    host.install()
    host.start()
    host.check(owner(host, DATA + "/qmr.db") == ("root", "600"), "without an account the data is root's again")


def abused_socket(host):
    """garbage, crowds and silent clients on the control socket"""
    host.install()
    host.start()
    pid = host.property("MainPID")
    script = r"""
import os, socket, struct, sys
def client():
    s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET); s.settimeout(20); s.connect(sys.argv[1]); return s
def request(control):
    return struct.pack("=I", control)
def answer(error):
    return struct.pack("=4I", error, 4, 1, 0)
for junk in ([b"\0" * 64], [b""], [b"128"], [b"-1\n"], [request(200) + b"\0"], [request(200) * 2], [os.urandom(5000)],
             [request(200)[:2], request(200)[2:]]):
    s = client()
    try:
        for packet in junk:
            s.send(packet)
        s.shutdown(socket.SHUT_WR)
        assert s.recv(100) == b"", junk
    except (ConnectionResetError, BrokenPipeError):
        pass
    s.close()
for unknown in (0, 999, 0x1000000, 2**32 - 1):
    s = client()
    s.send(request(unknown))
    assert s.recv(100) == answer(87), unknown
silent = [client() for _ in range(200)]
for i, s in enumerate(silent[100:]):
    try:
        s.send(b"20" if i % 2 else request(201))
    except (ConnectionResetError, BrokenPipeError):
        pass
last = client()
last.send(request(199))
assert last.recv(100) == answer(0)
for i in range(500):
    s = client(); s.send(request(4)); s.close()
last = client()
last.send(request(4))
assert last.recv(100) == answer(0)
"""
    result = host.container.run("/usr/bin/python3", "-c", script, SOCKET)
    host.check(result.returncode == 0, "every client that asks is answered", result.stderr.decode())
    host.check(host.property("MainPID") == pid, "the service runs on")
    host.radio("register", ESN)
    host.quillmere("-t")
    host.status(NOT_RUNNING)


def frozen(host):
    """no command waits for a frozen service, which goes on where it was"""
    host.install()
    host.start()
    pid = host.property("MainPID")
    host.container.run("kill", "-STOP", pid)
    host.wait(lambda: b"stopped" in host.container.run("grep", "State:", f"/proc/{pid}/status").stdout, "it is frozen")
    for arguments in (["-c", "5"], ["-p"], ["-r"]):
        host.quillmere("10", PROGRAM, *arguments, program="timeout")
    host.container.run("kill", "-CONT", pid)
    host.quillmere("-c", "5")
    host.radio("register", ESN)
    host.check(host.property("MainPID") == pid, "the service runs on")
    host.quillmere("-t")
    host.status(NOT_RUNNING)


def places(host):
    """from other directories, through links, from odd paths and with non-ASCII arguments"""
    odd = "/opt/Funk Größe/50% \"of\" $HOME\\x/quillmere"
    hidden = "/home/operator/build dir/quillmere"
    for program in (odd, hidden, "/var/tmp/quillmere: test/quillmere"):
        host.place(program)
        if program == hidden:
            os.chmod(host.container.path("/home/operator"), 0o700)
        host.install(ACCOUNT if program == hidden else "LocalSystem", program=program)
        verify = host.container.run("systemd-analyze", "verify", UNIT_FILE)
        host.check(verify.returncode == 0 and not verify.stderr, "systemd finds no fault in the unit", str(verify))
        host.start("Größe", program=program)
        host.status(RUNNING, program=program)
        host.quillmere("-t", program=program)
        host.quillmere("-u", program=program, out="The service Quill Mere has been uninstalled.\n")

    os.makedirs(host.container.path("/usr/local/bin"), exist_ok=True)
    os.symlink(PROGRAM, host.container.path("/usr/local/bin/qm"))
    for called, directory, language in (("/usr/local/bin/qm", "/var", "de_DE.ISO-8859-1"),
                                        ("./quillmere", "/opt/quillmere", "C"),
                                        ("../bin/qm", "/usr/local/lib", "C.UTF-8")):
        how = {"directory": directory, "environment": {"LC_ALL": language}}
        host.install(called=called, **how)
        host.start("parameter", program=called, **how)
        host.status(RUNNING, program=called, **how)
        host.quillmere("-t", program=called, **how)
        host.quillmere("-u", program=called, out="The service Quill Mere has been uninstalled.\n", **how)
    host.quillmere("-i", "Jürgen", "Paßwort", code=-1, err="The service Quill Mere could not be installed\n")


def hopeless_places(host):
    """where systemd could not start it, it is not installed"""
    for path in (b"/opt/Gr\xf6\xdfe/quillmere", "/opt/\ufdd0/quillmere".encode(), b"/home/a\nb/quillmere"):
        program = os.fsdecode(path)
        host.place(program)
        host.quillmere("-i", program=program, code=-1, err="The service Quill Mere could not be installed\n")
        host.check(not host.exists(UNIT_FILE), "there is no unit")
    host.status(ABSENT)


def unusable_database(host):
    """a start with an unusable database reports running, and only the log tells"""
    host.install()
    os.makedirs(host.container.path(DATA + "/qmr.db"))
    host.start()
    host.status(RUNNING)
    host.has_record(f"Failed to open database ('{DATA}\\qmr.db')", PRIORITY="3", EVENT_TYPE="error",
                    EVENT_ID="3221225473")
    host.check(host.property("NRestarts") == "0", "it is not started again")
    host.quillmere("-t")
    host.status(NOT_RUNNING)


def uninstalled_while_running(host):
    """uninstalling does not stop the service; it goes when it stops"""
    host.install()
    host.start()
    host.quillmere("-u", out="The service Quill Mere has been uninstalled.\n")
    host.check(not host.exists(UNIT_FILE), "the unit file is gone")
    host.radio("register", ESN)
    host.status(RUNNING)
    host.quillmere("-t")
    host.status(ABSENT)


def by_systemctl(host):
    """systemctl alone: enable, start, restart, stop"""
    host.install()
    for command in ("enable", "start", "restart", "status", "stop", "disable"):
        result = host.container.run("systemctl", command, UNIT)
        host.check(result.returncode == 0, f"systemctl {command}", str(result))
    host.check(host.property("Result") == "success", "it stopped without a failure")
    exposure = host.container.run("systemd-analyze", "security", "--no-pager", UNIT).stdout.decode().splitlines()[-1]
    score = float(exposure.split(":")[1].split()[0])
    host.check(score <= 2.0, f"exposure {score} is at most 2.0")


def foreground(host):
    """-exec serves without systemd and prints nothing"""
    inside = ["nsenter", "--target", str(host.container.leader), *host.container.NAMESPACES, "--"]
    with subprocess.Popen([*inside, PROGRAM, "-exec"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE) as server:
        host.radio("register", ESN)
        host.has_record(f"Radio {ESN} with SUID", EVENT_SOURCE="Quill Mere")
        host.status(ABSENT)
        with open(f"/proc/{server.pid}/task/{server.pid}/children", encoding="ascii") as children:
            for child in children.read().split():
                os.kill(int(child), 15)
        server.terminate()
        output = server.communicate(timeout=60)
    host.check(output == (b"", b""), "it prints nothing", str(output))
    host.check(stat.S_ISDIR(os.stat(host.container.path(DATA)).st_mode), "its data lies in the same folder")


def signals(host):
    """a hang-up changes nothing; an interrupt is a stop in good order"""
    host.install()
    host.start()
    pid = host.property("MainPID")
    host.container.run("kill", "-HUP", pid)
    host.radio("register", ESN)
    host.check(host.property("MainPID") == pid, "the service runs on")
    host.container.run("kill", "-INT", pid)
    host.wait_for_state("inactive")
    host.check(host.property("Result") == "success", "it has not failed")
    host.has_record("Service stopped", PRIORITY="6", EVENT_TYPE="success")


def full_disk(host):
    """an installation that cannot be written fails and leaves nothing"""
    folder = os.path.dirname(UNIT_FILE)
    host.container.run("mount", "-t", "tmpfs", "-o", "size=4k", "tmpfs", folder)
    try:
        host.container.run("sh", "-c", f"cat /dev/zero > {folder}/filler")
        host.quillmere("-i", err="The service Quill Mere could not be installed\n", code=-1)
        host.check(not host.exists(UNIT_FILE), "there is no unit")
    finally:
        host.container.run("umount", folder)
    host.status(ABSENT)


def new_unit(host):
    """the guide's own lines bring a new unit"""
    guide = os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../../docs/operations.md")
    with open(guide, encoding="utf-8") as file:
        lines = file.read().split("brings a new unit")[1].split("\n\n")[1]
    host.place("/usr/local/bin/quillmere")
    host.install(program="/usr/local/bin/quillmere")
    host.start(program="/usr/local/bin/quillmere")
    host.radio("register", ESN)
    before = host.property("MainPID")
    host.container.run("sh", "-c", f"echo '# an older one' >> {UNIT_FILE}")
    result = host.container.run("sh", "-ec", "PATH=$PATH:/usr/local/bin\n" + lines)
    host.check(result.returncode == 0, "each line succeeds", str(result))
    host.wait_for_state("active")
    host.check(host.property("MainPID") != before, "another process runs")
    unit = host.container.run("cat", UNIT_FILE).stdout
    host.check(unit and b"an older one" not in unit, "the unit is the new one", unit.decode())
    enabled = host.container.run("systemctl", "is-enabled", UNIT).stdout.strip()
    host.check(enabled == b"enabled", "it starts with the machine")
    host.radio("follow", ESN)


def no_bus(host):
    """without a bus daemon root does everything, and anybody sees whether it runs"""
    host.install()
    host.status(NOT_RUNNING, user=STRANGER)
    host.container.run("systemctl", "stop", "dbus.socket", "dbus.service")
    try:
        host.check(not host.exists("/run/dbus/system_bus_socket") or
                   host.container.run("systemctl", "show", UNIT, user=STRANGER).returncode != 0,
                   "others cannot ask systemd")
        host.status(NOT_RUNNING, user=STRANGER)
        host.start("parameter")
        host.status(RUNNING, user=STRANGER)
        host.quillmere(user=STRANGER, err="The service Quill Mere could not start\n", code=-4)
        host.container.run(PROGRAM, "-t", user=STRANGER)
        host.status(RUNNING)
        host.quillmere("-t")
        host.status(NOT_RUNNING)
        host.quillmere("-u", out="The service Quill Mere has been uninstalled.\n")
        host.status(ABSENT)
    finally:
        host.container.run("systemctl", "start", "dbus.socket", "dbus.service")


def flood(host):
    """a flood of bad datagrams leaves a record of each"""
    host.install()
    host.start()
    host.radio("flood", ESN)
    text = b"Protocol error: invalid length"

    def recorded():
        lines = host.container.run("journalctl", "--output=cat", "SYSLOG_IDENTIFIER=Quill Mere",
                                   f"_PID={host.property('MainPID')}").stdout
        return lines.splitlines().count(text)

    host.wait(lambda: recorded() == 60000, "60000 records", 30)


def no_journal(host):
    """a journal that does not read its records holds nobody up"""
    def journald(number):
        host.container.run("systemctl", "kill", "--kill-who=main", f"--signal={number}", "systemd-journald.service")

    host.install()
    host.start()
    pid = host.property("MainPID")
    journald("STOP")
    try:
        host.radio("crowd", "0A00000000000000")
    finally:
        journald("CONT")
    host.radio("register", "0B00000000000000")
    host.has_record("Radio 0B00000000000000 with SUID", PRIORITY="6", EVENT_ID="3221225473")

    # Sockets made anew, with a journald that reads them.
    sockets = ["systemd-journald.socket", "systemd-journald-dev-log.socket"]
    host.container.run("systemctl", "stop", "systemd-journald.service", *sockets)
    host.radio("register", "0C00000000000000")
    host.container.run("systemctl", "start", *sockets, "systemd-journald.service")
    host.radio("register", "0D00000000000000")
    host.has_record("Radio 0D00000000000000 with SUID", PRIORITY="6", EVENT_ID="3221225473")
    host.check(host.property("MainPID") == pid, "the service ran on")

    journald("STOP")
    try:
        host.radio("crowd", "0E00000000000000")
        host.quillmere("-t")
        host.status(NOT_RUNNING)
    finally:
        journald("CONT")
    host.check(host.property("Result") == "success", "it stopped in good order")


SCENARIOS = [whole_life, killed, with_account, abused_socket, frozen, places, hopeless_places, unusable_database,
             uninstalled_while_running, by_systemctl, signals, full_disk, new_unit, foreground, no_bus, flood, no_journal]
