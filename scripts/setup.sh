#!/usr/bin/env bash
# Installs what building and testing tavor needs and is missing, from Debian's packages.
set -euo pipefail

packages=(
    g++ cmake ninja-build pkg-config
    libcurl4-openssl-dev libmbedtls-dev libmicrohttpd-dev
    libcli11-dev nlohmann-json3-dev
    libgtest-dev libbenchmark-dev zlib1g-dev
    clang-format clang-tidy
)

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q '^install ok installed$'; }

if ! command -v dpkg-query >/dev/null 2>&1 || ! command -v apt-get >/dev/null 2>&1; then
    echo "setup: this is no Debian system; install the counterparts of these packages and run again:" >&2
    printf '  %s\n' "${packages[@]}" >&2
    # Everything may be there already under other names: let the build say so.
    command -v cmake >/dev/null 2>&1 && command -v ninja >/dev/null 2>&1 && exit 0
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
