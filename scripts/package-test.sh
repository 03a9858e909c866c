#!/usr/bin/env bash
# Installs, upgrades, removes and purges the Debian packages in a Debian 12 of their own, which is booted with systemd in a container,
# with the simulated board in the place of devices (tests/package). One line for each check.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() {
    cat <<EOT
usage: scripts/package-test.sh [--packages DIR] [--no-install]
  --packages DIR   take the packages of scripts/package.sh from there instead of making them anew
  --no-install     don't install missing packages on this machine
Needs root, and fetches Debian's base system once, into build/package-test. Exit codes: 0 all checks passed, 1 one failed, 77 not run
because something can't be had.
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

limit_s=600 # of the container's life; it takes 10 on quiet cores

skip() {
    echo "package-test: not run: $*"
    exit 77
}

. scripts/lib/debian.sh

# The same packages with a later version.
make_newer() {
    local package tree=$work/test/tree
    mkdir -p "$work/test/newer"
    for package in "$work"/test/*.deb; do
        dpkg-deb -R "$package" "$tree"
        sed -i 's/^Version: .*/&+1/' "$tree/DEBIAN/control"
        dpkg-deb -b "$tree" "$work/test/newer" >/dev/null
        rm -rf "$tree"
    done
}

make_test() {
    rm -rf "$work/test" && mkdir -p "$work/test"
    find "$packages" -maxdepth 1 -name '*.deb' ! -name '*-dbgsym_*' -exec cp {} "$work/test" \;
    make_newer
    cp tests/package/lib.sh tests/package/checks.sh "$work/test"
    cat >"$work/test/package-test.service" <<EOT
[Unit]
SuccessAction=poweroff-force
FailureAction=poweroff-force
[Service]
Type=oneshot
ExecStart=/bin/bash /test/checks.sh
StandardOutput=file:/test/results
StandardError=file:/test/errors
[Install]
WantedBy=multi-user.target
EOT
}

# The container's root: the base, and above it, in memory, what the test changes.
mount_root() {
    mkdir -p "$work/layer"
    mount -t tmpfs tmpfs "$work/layer"
    mkdir "$work"/layer/{upper,work,root}
    mount -t overlay overlay -o "lowerdir=$work/base,upperdir=$work/layer/upper,workdir=$work/layer/work" "$work/layer/root"
    cp "$work/test/package-test.service" "$work/layer/root/etc/systemd/system/"
    mkdir -p "$work/layer/root/etc/systemd/system/multi-user.target.wants"
    ln -s ../package-test.service "$work/layer/root/etc/systemd/system/multi-user.target.wants/"
}

# Without systemd on this machine nobody gives the container control groups of its own: here they are.
enter_groups() {
    local dir
    for dir in /sys/fs/cgroup /sys/fs/cgroup/*; do
        [ -e "$dir/cgroup.procs" ] || continue
        mkdir "$dir/$machine" && echo $BASHPID >"$dir/$machine/cgroup.procs" || true
    done 2>/dev/null
}

remove_groups() { find /sys/fs/cgroup -depth -type d -path "*/$machine*" -exec rmdir {} \; 2>/dev/null || true; }

# In a mount namespace of its own: no mount outlives it.
boot() {
    local own=()
    mount_root
    [ -d /run/systemd/system ] || { own=(--register=no --keep-unit) && enter_groups; }
    exec timeout -k 10 $limit_s systemd-nspawn --quiet --machine="$machine" --directory="$work/layer/root" --boot "${own[@]}" \
        --private-network --bind="$work/test:/test" --console=pipe </dev/null >"$work/console.log" 2>&1
}

report() {
    cat "$work/test/results" 2>/dev/null || true
    if ! grep -q '^package-test: done$' "$work/test/results" 2>/dev/null; then
        tail -n 20 "$work/console.log" "$work/test/errors" >&2 || true
        echo "package-test: FAILED: the container ended before its checks did" >&2
        exit 1
    fi
    if grep -q '^package-test: BAD' "$work/test/results"; then
        echo "package-test: FAILED after $SECONDS s"
        exit 1
    fi
    echo "package-test: done after $SECONDS s, $(grep -c '^package-test: good' "$work/test/results") checks passed"
}

debian_tools systemd-container
debian_packages
debian_base
make_test
machine=tavor-test-$$
export work machine limit_s
export -f boot mount_root enter_groups
unshare --mount bash -eu -c boot || true # how the container ended says nothing: its checks do
remove_groups
report
