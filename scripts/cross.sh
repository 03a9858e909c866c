#!/usr/bin/env bash
# Builds for other processors with Debian's cross compilers, and runs the tests there under an emulator of user programs.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() {
    cat <<EOT
usage: scripts/cross.sh [--programs] [ARCH...]
  ARCH         arm64, armhf or riscv64; default: arm64 and armhf
  --programs   no unit tests; there are none for riscv64 anyway
Fetches the libraries from Debian's packages into build/sysroot/ARCH and builds in build/ARCH, a warning is an error. Then the unit
tests run, and one round of daemon, board, relay and client: start, position, stop. At the end the sizes. Compilers and emulator are installed when this runs as
root; nothing else on this machine is changed. Exit codes: 0 all passed, 1 something failed, 77 not run because something can't be had.
EOT
}

packages=(libc6-dev libstdc++6 libatomic1 libcurl4-openssl-dev libmbedtls-dev libmicrohttpd-dev libncurses-dev
    libevent-dev libmosquitto-dev libssl-dev
    libcli11-dev nlohmann-json3-dev libgtest-dev zlib1g-dev)
programs=(tavor tavorctl tavor-relay tavor-relay-mqtt tavor-board)
skipped=77
answer_limit_s=60 # of one program under the emulator

# What the emulator can't do, and not the programs: it gives a TCP_INFO of 4 bytes, has no sockets that tell of others' and no rate of a
# serial line above 460800, and tells late that a program isn't there.
not_emulated='SocketServerTest\.FiveClientsMayWaitToBeAccepted|RelayMqtt\.AnEndlessPacketIsCutOff'
not_emulated+='|RelayGpsd\.WhatComes(TogetherGoesToAClientInOnePiece|WithinHalfAMillisecondIsReadTogether)'
not_emulated+='|Relay(SlowClient|SilentClients|Flood)\.'
not_emulated+='|LocationUart\.EachKnownRateIsSetAndAnyOtherIs115200'
not_emulated+='|ToolOutput\.IsReadWithinItsLimitAndTheProgramIsEnded'

# What is not so on armhf. The emulator doesn't know the time-outs of sockets by their newer numbers.
not_on_armhf='InterposeFastClock\.ASocketsTimeOutIsOnTheProgramsClock'

unit_tests_wanted=yes
architectures=()
while [ $# -gt 0 ]; do
    case "$1" in
    --programs) unit_tests_wanted=no ;;
    arm64 | armhf | riscv64) architectures+=("$1") ;;
    -h | --help) usage && exit 0 ;;
    *) usage >&2 && exit 2 ;;
    esac
    shift
done
[ ${#architectures[@]} -gt 0 ] || architectures=(arm64 armhf)

skip() {
    echo "cross: not run: $*"
    exit $skipped
}

# choose ARCH: names of the compiler and of the emulator, and what only that processor has apart. Debian 12 has no packages for riscv64:
# the libraries of the next release serve, the compiler is this one's.
choose() {
    arch=$1
    processor=$arch
    release=bookworm
    unit_tests=$unit_tests_wanted
    excluded=$not_emulated
    case $arch in
    arm64) triplet=aarch64-linux-gnu processor=aarch64 ;;
    armhf) triplet=arm-linux-gnueabihf processor=arm excluded="$not_emulated|$not_on_armhf" ;;
    riscv64) triplet=riscv64-linux-gnu release=trixie unit_tests=no ;; # they name functions of mbed TLS 2 to the linker
    esac
    sysroot=$PWD/build/sysroot/$arch
    tree=build/$arch
}

install_tools() {
    local missing=()
    command -v "$triplet-g++" >/dev/null || missing+=("g++-$triplet")
    command -v "qemu-$processor-static" >/dev/null || missing+=(qemu-user-static)
    [ ${#missing[@]} -gt 0 ] || return 0
    command -v apt-get >/dev/null && [ "$(id -u)" -eq 0 ] || skip "missing packages: ${missing[*]}"
    echo "cross: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    { apt-get update -qq && apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >/dev/null ||
        skip "can't install ${missing[*]}"
}

# The packages come through an apt of their own, with the machine's archive and keys: the machine's knows nothing of the architecture.
write_apt_configuration() { # directory
    local archive
    archive=$(apt-get indextargets --format '$(REPO_URI) $(LABEL)' 'Created-By: Packages' | sed -n 's/ Debian$//p' | head -n 1)
    [ -n "$archive" ] || skip "apt knows no archive of Debian"
    mkdir -p "$1"/{lists,archives}/partial
    : >"$1/status"
    echo "deb $archive $release main" >"$1/sources.list"
    cat >"$1/apt.conf" <<EOT
APT::Architecture "$arch";
APT::Architectures { "$arch"; };
APT::Install-Recommends "false";
APT::Sandbox::User "root";
Dir::State "$1";
Dir::State::status "$1/status";
Dir::Cache "$1";
Dir::Etc::sourcelist "$1/sources.list";
Dir::Etc::sourceparts "/dev/null";
EOT
}

fetch_libraries() {
    local apt=$sysroot.apt package
    [ "$(cat "$sysroot/packages" 2>/dev/null)" != "${packages[*]}" ] || return 0
    command -v apt-get >/dev/null || skip "this is no Debian system: put the libraries into $sysroot"
    echo "cross: fetching the libraries of $arch"
    rm -rf "$apt" "$sysroot.part" && mkdir -p "$sysroot.part"
    write_apt_configuration "$apt"
    { APT_CONFIG=$apt/apt.conf apt-get update -qq &&
        APT_CONFIG=$apt/apt.conf apt-get install -y -qq --download-only "${packages[@]}"; } >"$apt/log" 2>&1 || {
        tail -n 5 "$apt/log" >&2
        skip "can't get the libraries of $arch"
    }
    for package in "$apt"/archives/*.deb; do
        dpkg-deb -x "$package" "$sysroot.part"
    done
    [ -e "$sysroot.part/lib" ] || ln -s usr/lib "$sysroot.part/lib" # later releases have their loader there
    echo "${packages[*]}" >"$sysroot.part/packages"
    rm -rf "$apt" "$sysroot"
    mv "$sysroot.part" "$sysroot"
}

run_unit_tests() {
    echo "cross: $arch: unit tests"
    ctest --preset "$arch" -L '^unit\.' -E "$excluded" --quiet --output-on-failure --output-log "$tree/unit_tests.log" || {
        grep -A 40 -F '***' "$tree/unit_tests.log"
        return 1
    }
}

# emulate PROGRAM ARGUMENT...
emulate() {
    timeout "$answer_limit_s" "qemu-$processor-static" -L "$sysroot" "$tree/bin/$1" "${@:2}"
}

# until_there WHAT COMMAND...: waits until the command succeeds.
until_there() {
    local what=$1 end=$((SECONDS + answer_limit_s))
    shift
    until "$@"; do
        if [ $SECONDS -ge $end ]; then
            echo "cross: $arch: $what is not there after $answer_limit_s s" >&2
            return 1
        fi
        sleep 0.1
    done
}

# The round: a position with an age, by the relay, and the chip off at the end. The board starts no programs here, for the kernel can't
# run them.
run_round() { # directory
    local socket=$1/etc/default/tavor/tavor_sun_path relay
    emulate tavor-board run --dir "$1" >"$1/board.log" 2>&1 &
    started+=($!)
    until_there "the board" grep -qs '^ready ' "$1/board.log" || return 1
    timeout $((answer_limit_s * 2)) "qemu-$processor-static" -L "$sysroot" -E LD_PRELOAD="$PWD/$tree/lib/libtavor_board.so" \
        -E TAVOR_BOARD_DIR="$1" "$tree/bin/tavor" >"$1/daemon.log" 2>&1 &
    started+=($!)
    until_there "the daemon's socket" test -S "$socket" || return 1
    emulate tavor-relay --daemon "$socket" --socket "$1/relay" --listen "" >"$1/relay.log" 2>&1 &
    relay=$!
    started+=($relay)
    until_there "the relay's socket" test -S "$1/relay" || return 1
    emulate tavorctl --socket "$1/relay" position --json | tee "$1/position" || return 1
    grep -q '"latitude":43.29.*"satellites":' "$1/position" || return 1
    [ "$(emulate tavor-board ctl --dir "$1" power)" = on ] || return 1
    kill $relay && { wait $relay || true; }
    emulate tavorctl --socket "$socket" stop || return 1
    [ "$(emulate tavor-board ctl --dir "$1" power)" = off ]
}

run_system() {
    local directory status=0
    local started=()
    echo "cross: $arch: a round of daemon, board, relay and client"
    directory=$(mktemp -d)
    run_round "$directory" || status=1
    [ ${#started[@]} -eq 0 ] || kill "${started[@]}" 2>/dev/null || true
    wait
    if [ $status -ne 0 ]; then
        tail -n 30 "$directory"/*.log >&2
        echo "cross: $arch: the round failed" >&2
    fi
    rm -rf "$directory"
    return $status
}

build() {
    local targets=("${programs[@]}" tavor_board)
    [ "$unit_tests" = no ] || targets+=(tests/unit/all)
    echo "cross: $arch: build"
    # Debug information, which nobody reads here, would take a quarter of the time.
    cmake --preset "$arch" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG" >/dev/null
    cmake --build --preset "$arch" --target "${targets[@]}" | { grep -vE '^\[[0-9]+/[0-9]+\]' || true; }
}

print_sizes() {
    local program stripped
    stripped=$(mktemp)
    for program in "${programs[@]}"; do
        "$triplet-strip" -o "$stripped" "$(find "$tree/bin" "$tree/libexec" -type f -name "$program")"
        echo "cross: $arch: $program has $(stat -c %s "$stripped") bytes, stripped"
    done
    rm "$stripped"
}

for architecture in "${architectures[@]}"; do
    choose "$architecture"
    install_tools
    fetch_libraries
done
for architecture in "${architectures[@]}"; do
    choose "$architecture"
    build
    [ "$unit_tests" = no ] || run_unit_tests
    run_system
    print_sizes
done
echo "cross: passed: ${architectures[*]}"
