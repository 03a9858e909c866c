#!/usr/bin/env bash
# Tries all that the daemon can do under its unit on the kernel's own spidev and GPIO: boots Debian's kernel in an emulated machine with
# systemd, the Debian packages and the virtual board of board/kernel, and passes the checks of tests/package/service.sh there, as root and
# as user tavor. One line for each check.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() {
    cat <<EOT
usage: scripts/service-test.sh [--packages DIR] [--no-install]
  --packages DIR   take the packages of scripts/package.sh from there instead of making them anew
  --no-install     don't install missing packages on this machine
Needs root, but no hardware acceleration, and fetches Debian's base system once, into build/package-test. Exit codes: 0 all checks
passed, 1 one failed, 77 not run because something can't be had.
EOT
}

packages=
install=yes
while [ $# -gt 0 ]; do
    case "$1" in
    --packages) packages=${2:?} && shift ;;
    --no-install) install=no ;;
    -h | --help) usage && exit 0 ;;
    *) usage >&2 && exit 2 ;;
    esac
    shift
done

skip() {
    echo "service-test: not run: $*"
    exit 77
}

. scripts/lib/kernel.sh
. scripts/lib/debian.sh

# The root of the machine: the base and the packages, without what nobody reads there. It lies in the machine's memory.
make_root() {
    root=$work/machine
    rm -rf "$root" && cp -a "$work/base" "$root"
    mkdir "$root/test"
    find "$packages" -maxdepth 1 -name '*.deb' ! -name '*-dbgsym_*' -exec cp {} "$root/test" \;
    chroot "$root" sh -c 'dpkg -i /test/*.deb' >"$work/machine.log" 2>&1 || {
        cat "$work/machine.log" >&2
        exit 1
    }
    rm -rf "$root"/test/*.deb "$root"/usr/share/{man,locale,i18n,info} "$root"/var/{cache,lib/apt} "$root"/usr/lib/udev/hwdb*
    cp "$kernels/$release/i2c-dev.ko" "$kernels/$release/module/tavor_board.ko" tests/package/{lib,service}.sh "$root/test"
    cat >"$root/etc/systemd/system/service-test.service" <<EOT
[Unit]
SuccessAction=poweroff-force
FailureAction=poweroff-force
[Service]
Type=oneshot
ExecStart=/bin/bash /test/service.sh
StandardOutput=tty
StandardError=inherit
TTYPath=/dev/ttyS1
[Install]
WantedBy=multi-user.target
EOT
    ln -s ../service-test.service "$root/etc/systemd/system/multi-user.target.wants/"
    (cd "$root" && find . | cpio -o -H newc --quiet) >"$work/initramfs"
    rm -rf "$root"
}

# ttyS2 and ttyS3 are two ends of one line.
boot() {
    rm -f "$work"/{console,results}.log "$work/line"
    emulate 1024 "$work/initramfs" rdinit=/lib/systemd/systemd -display none -serial "file:$work/console.log" \
        -serial "file:$work/results.log" -chardev "socket,id=line,path=$work/line,server=on,wait=off" -serial chardev:line \
        -chardev "socket,id=end,path=$work/line" -serial chardev:end || true # how it ended its checks say
    rm -f "$work/line" "$work/initramfs"
}

report() {
    tr -d '\r' <"$work/results.log" >"$work/results" 2>/dev/null || true
    cat "$work/results"
    if ! grep -q '^service-test: done$' "$work/results"; then
        tail -n 20 "$work/console.log" >&2 || true
        echo "service-test: FAILED: the machine ended before its checks did" >&2
        exit 1
    fi
    if grep -q '^service-test: BAD' "$work/results"; then
        echo "service-test: FAILED after $SECONDS s"
        exit 1
    fi
    echo "service-test: done after $SECONDS s, $(grep -c '^service-test: good' "$work/results") checks passed"
}

debian_tools
prepare_kernel
debian_packages
debian_base
make_root
boot
report
