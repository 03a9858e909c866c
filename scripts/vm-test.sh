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
boot_limit_s=600 # of the host's time: an hour's worth of the checks on two quiet cores
work=build/kernel # the kernel and the module, for all build trees
packages=(qemu-system-x86 busybox-static cpio xz-utils make gcc-12 linux-headers-amd64)

skip() {
    echo "vm-test: not run: $*"
    exit $skipped
}

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q '^install ok installed$'; }

install_packages() {
    local package missing=()
    command -v dpkg-query >/dev/null || skip "this is no Debian system"
    [ "$(dpkg --print-architecture)" = amd64 ] || skip "the machine is made for amd64 only"
    for package in "${packages[@]}"; do
        installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    [ $install = yes ] && [ "$(id -u)" -eq 0 ] || skip "missing packages: ${missing[*]} (scripts/vm-test.sh --install as root gets them)"
    echo "vm-test: installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    { apt-get update -qq && apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >/dev/null ||
        skip "can't install ${missing[*]}"
}

# The release of the kernel whose headers are installed.
kernel_release() {
    dpkg-query -W -f='${Depends}\n' linux-headers-amd64 | sed -n 's/.*linux-headers-\([0-9][^ ,]*\).*/\1/p'
}

# Of the kernel's package only the kernel and i2c-dev are taken; spidev, SPI and GPIO are built in. Uncompressed it boots in half
# the time: the machine needn't unpack it.
fetch_kernel() {
    local dir=$work/$release package=linux-image-$release offset
    [ ! -e "$dir/vmlinux" ] || return 0
    echo "vm-test: fetching $package"
    rm -rf "$dir" && mkdir -p "$dir/package"
    (cd "$dir/package" && apt-get download -qq "$package" 2>/dev/null) || skip "can't get $package: run apt-get update as root"
    dpkg-deb --fsys-tarfile "$dir"/package/*.deb |
        tar -x -C "$dir/package" --wildcards './boot/vmlinuz-*' './lib/modules/*/i2c-dev.ko'
    find "$dir/package" -name i2c-dev.ko -exec mv {} "$dir" \;
    offset=$(LC_ALL=C grep -obUaP -m 1 '\xfd7zXZ\x00' "$dir/package/boot/vmlinuz-$release" | cut -d: -f1)
    tail -c +$((offset + 1)) "$dir/package/boot/vmlinuz-$release" |
        xz -dc --single-stream >"$dir/vmlinux.part" 2>/dev/null || [ -s "$dir/vmlinux.part" ]
    rm -rf "$dir/package"
    mv "$dir/vmlinux.part" "$dir/vmlinux"
}

build_module() {
    local module=$work/$release/module
    mkdir -p "$module"
    cp -u board/kernel/* "$module"
    make -C "$module" KDIR="/usr/src/linux-headers-$release" >"$module/make.log" 2>&1 || {
        cat "$module/make.log" >&2
        exit 1
    }
}

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
    install -t "$root" "$work/$release/i2c-dev.ko" "$work/$release/module/tavor_board.ko" tests/kernel/init tests/kernel/lib.sh
    install -D -t "$root/lib" "$build/lib/libtavor_board.so" # for the simulated devices beside the kernel's
    strip --strip-debug "$root/lib/libtavor_board.so"
    put_libraries "$build/lib/libtavor_board.so"
    install -D -t "$root/probe" tests/kernel/probe/accepted
    install -D -t "$root/checks" tests/kernel/checks/*.sh
    printf '%s\n' "$mode" "${only[@]}" >"$root/order"
    (cd "$root" && find . | cpio -o -H newc --quiet) >"$machine/initramfs"
}

# Virtual time: a counter of instructions is the clock (4 ns each), and a machine that only waits jumps to the next timer. So waits
# cost nothing, and what is measured is the same on a busy host. The processor's random numbers seed the kernel's.
boot() {
    local console=(-display none -serial "file:$machine/console.log" -serial "file:$machine/results.log")
    [ "$mode" != shell ] || console=(-nographic)
    rm -f "$machine/results.log"
    timeout "$boot_limit_s" qemu-system-x86_64 -machine q35 -accel tcg -cpu max -icount shift=2,sleep=off -m 512 -no-reboot -nodefaults \
        -rtc base=2026-11-21T12:00:00,clock=vm -seed 1 "${console[@]}" \
        -kernel "$work/$release/vmlinux" -initrd "$machine/initramfs" \
        -append "console=ttyS0 quiet panic=-1 random.trust_cpu=on mitigations=off tsc=reliable" || {
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
install_packages
release=$(kernel_release)
mkdir -p "$work"
fetch_kernel
[ "$mode" != install ] || exit 0
build_programs
machine=$build/kernel
mkdir -p "$machine"
build_module
make_initramfs
boot
[ "$mode" != shell ] || exit 0
report
if [ "$mode" = checks ] && grep -q '^check: .* FAILED' "$machine/results.txt"; then
    echo "vm-test: FAILED after $SECONDS s: $(sed -n 's/^check: \(.*\) FAILED.*/\1/p' "$machine/results.txt" | xargs)"
    exit 1
fi
echo "vm-test: done after $SECONDS s, $(grep -c '^check: .* passed' "$machine/results.txt") checks passed"
