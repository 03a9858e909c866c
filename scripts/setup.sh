#!/usr/bin/env bash
# Installs what building and testing tavor needs and is missing, from Debian's packages.
set -euo pipefail

packages=(
    g++ cmake ninja-build pkg-config
    libcurl4-openssl-dev libmbedtls-dev libmicrohttpd-dev
    libcli11-dev nlohmann-json3-dev libevent-dev libncurses-dev
    libgtest-dev libbenchmark-dev zlib1g-dev
    clang-format clang-tidy patch mandoc bash-completion
)

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q '^install ok installed$'; }

# Without Debian's packages: the tools, and what CMake looks for, under whatever names they came.
verify() {
    local tool tree status=0
    for tool in cmake ninja clang-format clang-tidy; do
        if ! command -v "$tool" >/dev/null 2>&1; then
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
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "setup: done"
