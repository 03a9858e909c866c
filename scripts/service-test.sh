#!/usr/bin/env bash
# Tries all that the daemon can do under its unit on the kernel's own spidev and GPIO: boots Debian's kernel in an emulated machine with
# systemd, the Debian packages and the virtual board of board/kernel, and passes the checks of tests/package/service.sh there, as root and
# as user tavor. One line for each check.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
name=service-test
. scripts/lib/debian.sh
. scripts/lib/kernel.sh
limit_s=1800 # all that is tried here takes a busy host longer

# The root of the machine: the base and the packages, without what nobody reads there. It lies in the machine's memory.
make_root() {
    root=$work/machine
    rm -rf "$root" && cp -a "$work/base" "$root"
    mkdir "$root/test"
    copy_packages "$root/test"
    chroot "$root" sh -c 'dpkg -i /test/*.deb' >"$work/machine.log" 2>&1 || {
        cat "$work/machine.log" >&2
        exit 1
    }
    rm -rf "$root"/test/*.deb "$root"/usr/share/{man,locale,i18n,info} "$root"/var/{cache,lib/apt} "$root"/usr/lib/udev/hwdb*
    cp "$kernels/$release/i2c-dev.ko" "$kernels/$release/module/tavor_board.ko" tests/package/{lib,service}.sh "$root/test"
    write_test_unit "$root" /test/service.sh StandardOutput=tty StandardError=inherit TTYPath=/dev/ttyS1
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

take_options "$@"
debian_tools
prepare_kernel
debian_packages
debian_base
make_root
boot
tr -d '\r' <"$work/results.log" >"$work/results" 2>/dev/null || true
report "$work/results" "$work/console.log"
