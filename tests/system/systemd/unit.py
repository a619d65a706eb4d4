# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""What the unit says, setting by setting, and what becomes of the service by it."""

import difflib
import json
import os
import shutil
import subprocess

from scenarios import DATA, ESN, NOT_RUNNING, RUNNING, UNIT_FILE

DROP_INS = UNIT_FILE + ".d"

# As systemd shows it. No value here is systemd's own default.
PROPERTIES = {
    "Type": "notify",
    "Environment": "QUILLMERE_APPDATA=/var/lib LC_ALL=C.UTF-8",
    "Restart": "on-failure",
    "RestartUSec": "2s",
    "TimeoutStartUSec": "infinity",
    "StartLimitIntervalUSec": "0",
    "LimitNOFILE": "16384",
    "LimitNOFILESoft": "16384",
    "LogRateLimitIntervalUSec": "30s",
    "LogRateLimitBurst": "1000000",
    "StateDirectory": '"Brackwater/Quill Mere"',
    "StateDirectoryMode": "0700",
    "RuntimeDirectory": "quill-mere",
    "RuntimeDirectoryMode": "0700",
    "UMask": "0077",
    "NoNewPrivileges": "yes",
    "CapabilityBoundingSet": "",
    "PrivateDevices": "yes",
    "PrivateTmp": "yes",
    "PrivateUsers": "yes",
    "ProtectSystem": "strict",
    "ProtectHome": "yes",
    "ProtectProc": "invisible",
    "ProcSubset": "pid",
    "ProtectClock": "yes",
    "ProtectControlGroups": "yes",
    "ProtectHostname": "yes",
    "ProtectKernelLogs": "yes",
    "ProtectKernelModules": "yes",
    "ProtectKernelTunables": "yes",
    "RestrictAddressFamilies": "AF_INET AF_INET6 AF_UNIX",
    "RestrictNamespaces": "yes",
    "RestrictRealtime": "yes",
    "RestrictSUIDSGID": "yes",
    "LockPersonality": "yes",
    "MemoryDenyWriteExecute": "yes",
    "RemoveIPC": "yes",
    "SystemCallArchitectures": "native",
    "SystemCallErrorNumber": "1",
}

# What is systemd's default too, or follows from another setting: only the text tells whether the unit says it.
SAID = ["NotifyAccess=main", "TimeoutStopSec=90s", "AmbientCapabilities=", "DevicePolicy=closed",
        "KeyringMode=private", "WantedBy=multi-user.target"]

# Tries in the sandbox of the service what it is to prevent, and prints what came of it: 0, or the error's number.
PROBE = r"""
import ctypes, json, mmap, os, socket
libc = ctypes.CDLL(None, use_errno=True)
seen = {}
def call(name, function, *arguments):
    ctypes.set_errno(0)
    function(*arguments)
    seen[name] = ctypes.get_errno()
def attempt(name, action):
    try:
        action()
        seen[name] = 0
    except OSError as error:
        seen[name] = error.errno
data = os.environ["STATE_DIRECTORY"]
own = os.path.join(data, "own")
attempt("write its data", lambda: open(own, "w").close())
attempt("write the system", lambda: open("/etc/quillmere-probe", "w").close())
attempt("write other data", lambda: open("/var/lib/quillmere-probe", "w").close())
attempt("read /home", lambda: os.listdir("/home"))
attempt("see the system in /proc", lambda: os.stat("/proc/meminfo"))
attempt("make a file run as its owner", lambda: os.chmod(own, 0o4700))
attempt("give a file away", lambda: os.chown(own, os.getuid(), os.getgid()))
attempt("IPv4", lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
attempt("IPv6", lambda: socket.socket(socket.AF_INET6, socket.SOCK_STREAM))
attempt("netlink", lambda: socket.socket(socket.AF_NETLINK, socket.SOCK_RAW))
attempt("another priority", lambda: os.setpriority(os.PRIO_PROCESS, 0, 19))
attempt("memory to write and to run", lambda: mmap.mmap(-1, 4096, prot=mmap.PROT_WRITE | mmap.PROT_EXEC))
call("namespace of users", libc.unshare, 0x10000000)
call("another personality", libc.personality, 8)
call("be traced", libc.ptrace, 0, 0, 0, 0)
os.remove(own)
with open(os.path.join(data, "probe.json"), "w") as file:
    json.dump(seen, file)
"""
EPERM, EACCES, ENOENT, EROFS, EAFNOSUPPORT = 1, 13, 2, 30, 97
PROBED = {
    "write its data": 0,
    "write the system": EROFS,  # ProtectSystem
    "write other data": EROFS,
    "read /home": EACCES,  # ProtectHome
    "see the system in /proc": ENOENT,  # ProcSubset
    "make a file run as its owner": EPERM,  # RestrictSUIDSGID
    "give a file away": EPERM,  # SystemCallFilter: @privileged
    "IPv4": 0,
    "IPv6": 0,
    "netlink": EAFNOSUPPORT,  # RestrictAddressFamilies
    "another priority": EPERM,  # SystemCallFilter: @resources
    "memory to write and to run": EPERM,  # MemoryDenyWriteExecute
    "namespace of users": EPERM,  # RestrictNamespaces
    "another personality": EPERM,  # LockPersonality
    "be traced": EPERM,  # SystemCallFilter: what is not @system-service
}


def drop_in(host, text):
    os.mkdir(host.container.path(DROP_INS))
    with open(host.container.path(DROP_INS + "/test.conf"), "w", encoding="utf-8") as file:
        file.write(f"[Service]\n{text}\n")
    host.container.run("systemctl", "daemon-reload")


def without_drop_in(host):
    host.stop()
    shutil.rmtree(host.container.path(DROP_INS))
    host.container.run("systemctl", "daemon-reload")


def settings(host):
    """systemd has each setting of the unit"""
    host.install()
    for name, expected in PROPERTIES.items():
        seen = host.property(name)
        host.check(seen == expected, f"{name} is {expected!r}", f"it is {seen!r}")
    for name in ("network.target", "time-set.target"):
        host.check(name in host.property("After").split(), f"it starts after {name}")
    with open(host.container.path(UNIT_FILE), encoding="utf-8") as file:
        lines = file.read().splitlines()
    for line in SAID:
        host.check(line in lines, f"the unit says {line}")


def mounts(text):
    """What is mounted where, the uppermost: its root, its options, its type and the file system's options."""
    found = {}
    for line in text.splitlines():
        before, after = line.split(" - ")
        root, point, options = before.split()[3:6]
        found[point] = (root, options.split(","), after.split()[0], after.split()[2].split(","))
    return found


def sandbox(host):
    """the service has what it needs and nothing else"""
    script = host.container.path("/opt/quillmere/probe.py")
    with open(script, "w", encoding="ascii") as file:
        file.write(PROBE)
    host.install()
    drop_in(host, "ExecStartPre=/usr/bin/python3 /opt/quillmere/probe.py")
    host.start()
    with open(host.container.path(DATA + "/probe.json"), encoding="ascii") as file:
        seen = json.load(file)
    for what, expected in PROBED.items():
        host.check(seen[what] == expected, f"{what}: {expected}", f"it was {seen[what]}")

    pid = host.property("MainPID")

    def process(name):
        return host.container.run("cat", f"/proc/{pid}/{name}").stdout.decode()

    status = dict(line.split(":\t", 1) for line in process("status").splitlines() if ":\t" in line)
    for name, expected in {"Umask": "0077", "NoNewPrivs": "1", "Seccomp": "2", **{
            "Cap" + kind: "0" * 16 for kind in ("Inh", "Prm", "Eff", "Bnd", "Amb")}}.items():
        host.check(status[name] == expected, f"{name} is {expected}", status[name])
    limit = [line.split()[3:5] for line in process("limits").splitlines() if line.startswith("Max open files")]
    host.check(limit == [["16384", "16384"]], "it may open 16384 files", str(limit))
    users = [line.split() for line in process("uid_map").splitlines()]
    host.check(users == [["0", "0", "1"]], "there is no other user", str(users))

    def namespace(process_id, kind):
        return host.container.run("readlink", f"/proc/{process_id}/ns/{kind}").stdout

    for kind in ("user", "mnt", "uts"):
        host.check(namespace(pid, kind) != namespace(1, kind), f"its {kind} namespace is its own")
    host.check(namespace(pid, "net") == namespace(1, "net"), "its network is the machine's")

    mounted = mounts(process("mountinfo"))
    for point in ("/", "/dev"):
        host.check("ro" in mounted[point][1], f"{point} is read-only", str(mounted[point]))
    host.check("noexec" in mounted["/dev"][1], "/dev is its own", str(mounted["/dev"]))
    for point in ("/tmp", "/var/tmp"):
        host.check("/systemd-private-" in mounted[point][0], f"{point} is its own", str(mounted[point]))
    host.check({"hidepid=invisible", "subset=pid"} <= set(mounted["/proc"][3]), "/proc shows itself only",
               str(mounted["/proc"]))
    for point in ("/home", "/root", "/run/user"):
        host.check("/inaccessible/" in mounted[point][0], f"{point} is hidden", str(mounted[point]))
    host.check("rw" in mounted[DATA.replace(" ", "\\040")][1], "its data folder can be written to")
    without_drop_in(host)
    os.remove(script)


def killed_quickly(host):
    """however often it fails, it is started again"""
    host.install()
    drop_in(host, "RestartSec=1ms")
    host.start()
    for _ in range(10):
        before = host.property("MainPID")
        host.container.run("kill", "-9", before)
        host.wait(lambda old=before: host.property("ActiveState") == "active" and
                  host.property("MainPID") not in ("0", old), "another process runs")
    without_drop_in(host)


def start_parameters(host):
    """the service gets its start parameters as they were given"""
    host.install()
    drop_in(host, f"ExecStartPre=/bin/cp /run/quill-mere/start-parameters '{DATA}/seen'")
    given = ("Größe %n $HOME", "", "📻", "-x", "a\nb")
    host.start(*given, environment={"LC_ALL": "de_DE.ISO-8859-1"})
    with open(host.container.path(DATA + "/seen"), "rb") as file:
        seen = file.read()
    host.check(seen == "".join(text + "\0" for text in given).encode(), "they are in the file", str(seen))
    without_drop_in(host)


def masked(host):
    """masked, as a package's unit can be, it is installed and does not start"""
    host.install()
    vendor = "/lib/systemd/system/quill-mere.service"
    host.container.run("mv", UNIT_FILE, vendor)
    host.container.run("systemctl", "mask", "--runtime", "quill-mere")
    host.check(host.property("LoadState") == "masked", "it is masked")
    host.quillmere("parameter", err="The service Quill Mere could not start\n", code=-4)
    host.status(NOT_RUNNING)
    host.check(not host.exists("/run/quill-mere"), "no start parameters are left")
    host.container.run("systemctl", "unmask", "--runtime", "quill-mere")
    host.start()
    host.stop()
    host.container.run("rm", vendor)
    host.container.run("systemctl", "daemon-reload")


def installed_by_cmake(host):
    """cmake --install has the unit that -install writes for the program, also below a folder that the sandbox hides"""
    build = os.path.dirname(os.path.dirname(host.program))

    def cmake_install(prefix):
        done = subprocess.run(["cmake", "--install", build, "--prefix", prefix, "--component", "server"],
                              env=dict(os.environ, DESTDIR=host.container.root), check=False, capture_output=True)
        manifest = os.path.join(build, "install_manifest_server.txt")
        if os.path.exists(manifest):
            os.remove(manifest)
        return done

    for refused in ('/opt/a"b', "/opt/a\nb", "/opt/a;b"):
        done = cmake_install(refused)
        host.check(done.returncode != 0 and b"systemd takes no program" in done.stderr, f"not to {refused!r}", str(done))
    for prefix in ("/usr/local", "/opt/quill 50%", "/home/quill mere", "/root/quill", "/var/tmp/quill"):
        done = cmake_install(prefix)
        host.check(done.returncode == 0, f"to {prefix}", str(done))
        unit = f"{prefix}/lib/systemd/system/quill-mere.service"
        with open(host.container.path(unit), encoding="utf-8") as file:
            installed = file.read()
        if prefix == "/usr/local":
            host.container.run("systemctl", "daemon-reload")
        else:
            host.container.run("systemctl", "link", unit)
        host.start(program=f"{prefix}/bin/quillmere")
        host.radio("register", ESN)
        host.check(host.property("LimitNOFILE") == "16384", "it runs by that unit")
        host.stop()
        host.container.run("rm", "-f", unit, UNIT_FILE)
        host.container.run("systemctl", "daemon-reload")
        host.install(program=f"{prefix}/bin/quillmere")
        with open(host.container.path(UNIT_FILE), encoding="utf-8") as file:
            written = file.read()
        host.quillmere("-u", out="The service Quill Mere has been uninstalled.\n")

        def but_for_the_description(text):
            return [line for line in text.splitlines() if not line.startswith("Description=")]

        host.check(but_for_the_description(installed) == but_for_the_description(written), "it is what -install writes",
                   "\n".join(difflib.unified_diff(written.splitlines(), installed.splitlines())))


def machine_restarts(host):
    """enabled, it starts with the machine, with its table"""
    host.install()
    host.container.run("systemctl", "enable", "--now", "quill-mere")
    host.radio("register", ESN)
    host.container.restart()
    host.wait_for_state("active")
    host.radio("follow", ESN)
    host.status(RUNNING)


SCENARIOS = [settings, sandbox, killed_quickly, start_parameters, masked, installed_by_cmake, machine_restarts]
