#!/usr/bin/env bash
# Installs what building and testing tavor needs and is missing, from Debian's packages.
set -euo pipefail

usage() {
    cat <<EOT
usage: scripts/setup.sh [--peers|--all]
  --peers   also programs of others that tavor works with, as its tests show, which are skipped without. Services that come with these
            are neither started nor enabled, and a program that keeps this machine's time is not replaced.
  --all     these, and what containers and packaging take, which only some tests use
Runs apt-get as root or with sudo. Exit codes: 0 all is there, 1 or more not.
EOT
}

packages=(
    g++ cmake ninja-build pkg-config
    libcurl4-openssl-dev libmbedtls-dev libmicrohttpd-dev
    libcli11-dev nlohmann-json3-dev libevent-dev libmosquitto-dev libssl-dev libncurses-dev
    libgtest-dev libbenchmark-dev zlib1g-dev
    clang-format clang-tidy patch mandoc bash-completion
)
peers=(
    gpsd gpsd-clients python3-gps libgps-dev chrony mosquitto mosquitto-clients prometheus
    tmux zsh libxml2-utils
)
containers=(build-essential debootstrap systemd-container debhelper dpkg-dev lintian)
programs=(cmake ninja clang-format clang-tidy) # of all these packages, where they have other names
peer_programs=(gpsd cgps mosquitto prometheus tmux zsh xmllint) # chronyd only where nothing else keeps the time
container_programs=(debootstrap systemd-nspawn dpkg-buildpackage dh lintian)
services=(chrony mosquitto gpsd prometheus) # of those that bring one
policy=/usr/sbin/policy-rc.d

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q '^install ok installed$'; }

# Without Debian's packages: the tools, and what CMake looks for, under whatever names they came.
verify() {
    local tool tree status=0
    for tool in "${programs[@]}"; do
        if ! PATH=$PATH:/usr/sbin command -v "$tool" >/dev/null 2>&1; then
            echo "setup: $tool is missing" >&2
            status=1
        fi
    done
    [ "$status" -eq 0 ] || return 1
    tree=$(mktemp -d)
    if ! cmake -S "$(dirname "${BASH_SOURCE[0]}")/.." -B "$tree" -G Ninja >"$tree/out" 2>&1; then
        grep -A 3 'CMake Error' "$tree/out" >&2 || cat "$tree/out" >&2
        status=1
    fi
    rm -rf "$tree"
    return "$status"
}

# Another of these would have to go for chrony.
keeps_time() {
    [ -n "$(dpkg-query -W -f='${db:Status-Abbrev}${Package} ${Provides}\n' | sed -n '/^ii *chrony /d; /^ii.*time-daemon/p')" ]
}

# Until this script ends no package starts a service.
hold_services() {
    [ ! -e $policy ] || return 0
    trap '"${as_root[@]}" rm -f $policy' EXIT
    printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" install -m 755 /dev/stdin $policy
}

disable_services() {
    local service
    for service in "${services[@]}"; do
        [[ " ${missing[*]} " != *" $service "* ]] || "${as_root[@]}" systemctl disable "$service" >/dev/null 2>&1 || true
    done
}

case "${1:-}" in
"") ;;
--peers)
    packages+=("${peers[@]}")
    programs+=("${peer_programs[@]}")
    ;;
--all)
    packages+=("${peers[@]}" "${containers[@]}")
    programs+=("${peer_programs[@]}" "${container_programs[@]}")
    ;;
-h | --help) usage && exit 0 ;;
*) usage >&2 && exit 2 ;;
esac

if ! command -v dpkg-query >/dev/null 2>&1 || ! command -v apt-get >/dev/null 2>&1; then
    if verify; then
        echo "setup: no Debian system, but all that is needed is there"
        exit 0
    fi
    echo "setup: this is no Debian system: install the counterparts of these packages and run again:" >&2
    printf '  %s\n' "${packages[@]}" >&2
    exit 1
fi

missing=()
for package in "${packages[@]}"; do
    if [ "$package" = chrony ] && keeps_time; then
        echo "setup: chrony is left out: another program keeps this machine's time"
        continue
    fi
    installed "$package" || missing+=("$package")
done
if [ ${#missing[@]} -eq 0 ]; then
    echo "setup: nothing to install"
    exit 0
fi

as_root=()
if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null 2>&1; then
        echo "setup: missing packages: ${missing[*]}" >&2
        echo "setup: run as root: apt-get install ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
hold_services
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
disable_services
echo "setup: done"
