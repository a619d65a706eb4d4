# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
# shellcheck shell=bash
#
# What the scripts here share. To be sourced: it leaves the shell at the top of the source tree.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# shellcheck disable=SC2034 # each script picks the lists it needs
build_packages=(g++ cmake ninja-build ccache pkg-config qt6-base-dev qt6-base-dev-tools libqt6sql6-sqlite libsqlite3-dev libsystemd-dev
    libboost-dev nodejs npm)
# shellcheck disable=SC2034
demo_packages=(python3 iproute2 util-linux)
# shellcheck disable=SC2034
test_packages=(python3 iproute2 systemd-container dbus zsh jq nftables psmisc sqlite3 tcpdump tshark
    chromium default-jdk-headless mono-mcs mono-runtime libmono-posix4.0-cil python3-jsonschema)
# shellcheck disable=SC2034 # what packaging/windows/build-qt needs it installs itself
windows_packages=(python3 nsis)
# shellcheck disable=SC2034
wine_packages=(sqlite3 wine64)
# shellcheck disable=SC2034
arm64_packages=(g++-aarch64-linux-gnu mmdebstrap qemu-user-static)
# shellcheck disable=SC2034
lint_packages=(clang-format clang-tidy shellcheck lua-check)
# shellcheck disable=SC2034
fuzz_packages=(clang libclang-rt-14-dev)
# shellcheck disable=SC2034
mutation_packages=(python3 python3-clang-14)
# shellcheck disable=SC2034
coverage_packages=(python3 gcovr)

# shellcheck disable=SC2034
package_packages=(binutils debhelper dpkg-dev lintian lowdown python3)

# One compiler cache for every clone of this tree: what a source is compiled to does not depend on where it lies.
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# Node.js and npm may have come from elsewhere than Debian, in one package or two.
is_there() {
    case $1 in
        nodejs) command -v node >/dev/null ;;
        npm) command -v npm >/dev/null ;;
        *) [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ] ;;
    esac
}

# need PACKAGE...: installs what is missing, and asks for nothing when nothing is.
need() {
    local missing=() package
    for package in "$@"; do
        is_there "$package" || missing+=("$package")
    done
    if [ ${#missing[@]} -gt 0 ]; then
        echo "Installing ${missing[*]}"
        as_root apt-get -qq update
        as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300 \
            install -y --no-install-recommends "${missing[@]}" >/dev/null
    fi
}

# build PRESET [TARGET...]: configures and builds it, or only what is named of it.
build() {
    local preset=$1
    shift
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" ${1:+--target "$@"}
}

# promtool: leaves the path of Prometheus' tool in QUILLMERE_PROMTOOL. Where it is not installed, it is unpacked into the cache: Debian's
# package would start a service. Without it, its tests are skipped, and say so.
promtool() {
    local cache=${QUILLMERE_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/quillmere} folder
    if [ -n "${QUILLMERE_PROMTOOL:-}" ]; then
        return
    fi
    QUILLMERE_PROMTOOL=$(command -v promtool) || QUILLMERE_PROMTOOL=$cache/prometheus/usr/bin/promtool
    export QUILLMERE_PROMTOOL
    if [ -e "$QUILLMERE_PROMTOOL" ]; then
        return
    fi
    mkdir -p "$cache"
    folder=$(mktemp -d "$cache/prometheus.XXXXXX")
    echo "Unpacking promtool into $cache"
    if as_root apt-get -qq update && (cd "$folder" && apt-get -qq -o APT::Sandbox::User= download prometheus) &&
        dpkg-deb --extract "$folder"/prometheus_*.deb "$folder/unpacked" &&
        "$folder/unpacked/usr/bin/promtool" --version >/dev/null; then
        # Of several runs that get here at once the first one's stays.
        mv -T "$folder/unpacked" "$cache/prometheus" 2>/dev/null || true
    else
        echo "promtool cannot be had: its tests will be skipped" >&2
    fi
    rm -rf "$folder"
    [ -e "$QUILLMERE_PROMTOOL" ] || unset QUILLMERE_PROMTOOL
}
