#!/usr/bin/env bash
# Runs the shipped programs on the kernel's own spidev, i2c-dev and GPIO: boots Debian's kernel in an emulated machine with the
# virtual board of board/kernel, and passes the checks of tests/kernel there.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() {
    cat <<EOT
usage: scripts/vm-test.sh [--build DIR] [--only CHECK]... [--no-install] [--shell]
       scripts/vm-test.sh --install
       scripts/vm-test.sh --build DIR --record | --result CHECK
  --build DIR    take the programs from this build tree; default: build/release, which is built
  --only CHECK   a file of tests/kernel/checks without .sh; may be repeated; default: all
  --no-install   don't install missing packages
  --install      install missing packages only, and fetch the kernel
  --record       run all, end with 0 also when checks fail, and leave it to --result to tell how each has ended
  --shell        boot, then give a shell on the machine instead of the checks
Needs no hardware acceleration and changes nothing on this machine but for Debian packages, which are installed when this runs as
root. Exit codes: 0 all checks passed, 1 one failed, 77 not run because something can't be had.
EOT
}

build=
install=yes
mode=checks # record, result, install or shell
only=()
while [ $# -gt 0 ]; do
    case "$1" in
    --build) build=${2:?} && shift ;;
    --only) only+=("${2:?}") && shift ;;
    --no-install) install=no ;;
    --install) mode=install ;;
    --record) mode=record ;;
    --result) mode=result check=${2:?} && shift ;;
    --shell) mode=shell ;;
    -h | --help) usage && exit 0 ;;
    *) usage >&2 && exit 2 ;;
    esac
    shift
done

skipped=77

skip() {
    echo "vm-test: not run: $*"
    exit $skipped
}

. scripts/lib/kernel.sh

build_programs() {
    [ -z "$build" ] || return 0
    build=build/release
    scripts/setup.sh
    cmake --preset release >/dev/null
    cmake --build $build --target tavor tavorctl tavor-board tavor-i2c kernel-probe
}

# put_program FILE: with the libraries that it needs.
put_program() {
    install -D -t "$root/bin" "$1"
    strip --strip-debug "$root/bin/${1##*/}"
    put_libraries "$1"
}

put_libraries() {
    local library
    for library in $(ldd "$1" | grep -o '/[^ ]*'); do
        [ -e "$root$library" ] || install -D "$library" "$root$library"
    done
}

make_initramfs() {
    local program curl
    root=$machine/root
    rm -rf "$root"
    mkdir -p "$root"/{bin,proc,sys,dev,tmp,etc/default,lib64}
    install -t "$root/bin" "$(command -v busybox)"
    for program in tavor tavorctl tavor-board tavor-i2c kernel-probe; do
        put_program "$build/bin/$program"
    done
    curl=$(ldconfig -p | sed -n 's/.*libcurl\.so\.4 .*=> //p' | sed -n 1p)
    install -D "$curl" "$root$curl" # loaded with the first download
    put_libraries "$curl"
    install -t "$root" "$kernels/$release/i2c-dev.ko" "$kernels/$release/module/tavor_board.ko" tests/kernel/init tests/kernel/lib.sh
    install -D -t "$root/lib" "$build/lib/libtavor_board.so" # for the simulated devices beside the kernel's
    strip --strip-debug "$root/lib/libtavor_board.so"
    put_libraries "$build/lib/libtavor_board.so"
    install -D -t "$root/probe" tests/kernel/probe/accepted
    install -D -t "$root/checks" tests/kernel/checks/*.sh
    printf '%s\n' "$mode" "${only[@]}" >"$root/order"
    (cd "$root" && find . | cpio -o -H newc --quiet) >"$machine/initramfs"
}

boot() {
    local console=(-display none -serial "file:$machine/console.log" -serial "file:$machine/results.log")
    [ "$mode" != shell ] || console=(-nographic)
    rm -f "$machine/results.log"
    emulate 512 "$machine/initramfs" "" "${console[@]}" || {
        echo "vm-test: the machine did not end by itself" >&2
        tail -n 20 "$machine/console.log" >&2
        exit 1
    }
}

# How a check of a recorded run has ended.
result() {
    local results=${build:?}/kernel/results.txt
    [ -e "$results" ] || skip "the machine has not run"
    sed -n "/^check: $check\$/,/^check: $check [pF]/p" "$results"
    grep -q "^check: $check passed" "$results"
}

# Each check's lines stand between "check: NAME" and "check: NAME passed|FAILED after MS ms".
report() {
    tr -d '\r' <"$machine/results.log" >"$machine/results.txt"
    cat "$machine/results.txt"
    grep -q '^check: done$' "$machine/results.txt" || {
        echo "vm-test: the machine ended before its checks did" >&2
        tail -n 20 "$machine/console.log" >&2
        exit 1
    }
}

if [ "$mode" = result ]; then
    result
    exit
fi
[ "$mode" != record ] || rm -f "$build/kernel/results.txt"
prepare_kernel busybox-static
[ "$mode" != install ] || exit 0
build_programs
machine=$build/kernel
mkdir -p "$machine"
make_initramfs
boot
[ "$mode" != shell ] || exit 0
report
if [ "$mode" = checks ] && grep -q '^check: .* FAILED' "$machine/results.txt"; then
    echo "vm-test: FAILED after $SECONDS s: $(sed -n 's/^check: \(.*\) FAILED.*/\1/p' "$machine/results.txt" | xargs)"
    exit 1
fi
echo "vm-test: done after $SECONDS s, $(grep -c '^check: .* passed' "$machine/results.txt") checks passed"
