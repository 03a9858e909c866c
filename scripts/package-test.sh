#!/usr/bin/env bash
# Installs, upgrades, removes and purges the Debian packages in a Debian 12 of their own, which is booted with systemd in a container,
# with the simulated board in the place of devices (tests/package). One line for each check.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
name=package-test
. scripts/lib/debian.sh

limit_s=600 # of the container's life; it takes a minute on quiet cores

# The same packages with a later version and another sample configuration.
make_newer() {
    local package tree=$work/test/tree
    mkdir -p "$work/test/newer"
    for package in "$work"/test/*.deb; do
        dpkg-deb -R "$package" "$tree"
        sed -i 's/^Version: .*/&+1/; s/^Depends: .*(= [0-9.]*/&+1/' "$tree/DEBIAN/control"
        [ ! -e "$tree/etc/default/tavor/tavor.conf" ] || echo newer >>"$tree/etc/default/tavor/tavor.conf"
        dpkg-deb -b "$tree" "$work/test/newer" >/dev/null
        rm -rf "$tree"
    done
}

make_test() {
    rm -rf "$work/test" && mkdir -p "$work/test"
    copy_packages "$work/test"
    make_newer
    cp tests/package/*.sh packaging/buildroot/tavor/S50tavor "$work/test"
}

# The container's root: the base, and above it, in memory, what the test changes.
mount_root() {
    mkdir -p "$work/layer"
    mount -t tmpfs tmpfs "$work/layer"
    mkdir "$work"/layer/{upper,work,root}
    mount -t overlay overlay -o "lowerdir=$work/base,upperdir=$work/layer/upper,workdir=$work/layer/work" "$work/layer/root"
    write_test_unit "$work/layer/root" /test/checks.sh StandardOutput=file:/test/results StandardError=file:/test/errors
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
        --private-network --bind="$work/test:/test" --console=pipe </dev/null
}

# The container's network is its own, and its loopback device comes up only with CAP_NET_ADMIN, bit 12 of the rights.
may_set_up_a_network() { ((0x$(sed -n 's/^CapEff:[[:space:]]*//p' /proc/self/status) >> 12 & 1)); }

take_options "$@"
debian_tools systemd-container $([ -n "$packages" ] || echo build-essential debhelper)
may_set_up_a_network || skip "this takes the right to set up a network (CAP_NET_ADMIN)"
debian_packages
debian_base
make_test
machine=tavor-test-$$-$RANDOM # on one machine there may be two processes of one number, each in a container
export name work machine limit_s
export -f boot mount_root write_test_unit enter_groups
unshare --mount bash -eu -c boot >"$work/console.log" 2>&1 || true # how the container ended says nothing: its checks do
remove_groups
# Nothing but Debian's own system has run until then.
[ -e "$work/test/results" ] || { tail -n 5 "$work/console.log" && skip "this machine boots no container"; }
report "$work/test/results" "$work/console.log" "$work/test/errors"
