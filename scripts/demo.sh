# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
# shellcheck shell=bash
#
# What both demos share. To be sourced, with programs set to the folder of the programs: a folder, and what runs in it, all of which
# is gone when the shell ends.

: "${programs:?}"
port= # of the server, for radios and applications
page= # what the monitor serves
folder=$(mktemp -d)
data="$folder/Brackwater/Quill Mere"
events=$folder/events.json
declare -A running=()

end_of() {
    local id=${running[$1]:-}
    unset "running[$1]"
    if [ -n "$id" ]; then
        # Not waited for: bash may do that in vain for what has ended at the same Ctrl-C. Killed again, since a process that
        # is just being made may lose the first signal.
        disown "$id" 2>/dev/null || true
        while kill "$id" 2>/dev/null; do
            sleep 0.05
        done
    fi
}

clean_up() {
    local name
    trap '' INT TERM HUP
    # Before the server: they would report that it has gone.
    end_of application
    end_of monitor
    for name in "${!running[@]}"; do
        end_of "$name"
    done
    rm -rf "$folder"
}
trap clean_up EXIT

say() { printf '\n%s\n' "$*"; }

# free_port PORT: one that is free for UDP and TCP; this one, if it is.
free_port() {
    python3 - "$1" <<'PYTHON'
import socket, sys
def free(port):
    with socket.socket() as tcp, socket.socket(type=socket.SOCK_DGRAM) as udp:
        tcp.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1) # as servers do
        tcp.bind(("", port))
        udp.bind(("", tcp.getsockname()[1]))
        return tcp.getsockname()[1]
for port in [int(sys.argv[1])] + [0] * 100:
    try:
        print(free(port))
        break
    except OSError:
        pass
PYTHON
}

# until_logged TIMES TEXT: waits until the event log has so many records with the text.
until_logged() {
    local _
    for _ in $(seq 300); do
        if [ "$(grep -cF -- "$2" "$events" 2>/dev/null)" -ge "$1" ]; then
            return 0
        fi
        sleep 0.1
    done
    echo "Not in the event log after 30 s: $2" >&2
    exit 1
}

# start_server TIMES: the server, for so many times by now, at the port $port.
start_server() {
    QUILLMERE_APPDATA=$folder QUILLMERE_EVENTLOG=$events "$programs/quillmere" -exec &
    running[server]=$!
    until_logged "$1" "Service started"
}

# served PATH: what the monitor at $page serves there.
served() { python3 -c 'import sys, urllib.request as r; print(r.urlopen(sys.argv[1], timeout=10).read().decode(), end="")' "$page$1"; }

# until_served PATH PATTERN: waits until a line of it is like the pattern.
until_served() {
    local _
    for _ in $(seq 300); do
        if served "$1" 2>/dev/null | grep -qE -- "$2"; then
            return 0
        fi
        sleep 0.1
    done
    echo "Not at $page$1 after 30 s: $2" >&2
    exit 1
}

mkdir -p "$data"
touch "$events"
configure() { printf 'radioRegistrationPort=%s\napplicationPort=%s\n' "$port" "$port" >"$data/qmr.cfg"; }
