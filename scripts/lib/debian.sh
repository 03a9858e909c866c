# Debian packages of this tree, and a Debian 12 to install them in. Whoever takes this has a function skip, and in $install whether
# missing packages may be installed (yes or no), in $packages the directory that holds this tree's, if it has been given.
work=$PWD/build/package-test

# What the packages need beside systemd: they are installed without a network.
base_packages=systemd,systemd-sysv,dbus,udev,kmod,libcurl4,libmbedcrypto7,libmicrohttpd12,libncursesw6,libevent-core-2.1-7

# debian_tools PACKAGE...: root, and these.
debian_tools() {
    local package missing=()
    [ "$(id -u)" -eq 0 ] || skip "this takes root"
    command -v dpkg-query >/dev/null || skip "this is no Debian system"
    for package in debootstrap "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    [ $install = yes ] || skip "missing packages: ${missing[*]}"
    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"; } >/dev/null ||
        skip "can't install ${missing[*]}"
}

debian_packages() {
    [ -z "$packages" ] || return 0
    command -v dh >/dev/null && command -v dpkg-buildpackage >/dev/null || skip "debhelper or dpkg-dev is missing"
    packages=build/package
    scripts/package.sh >/dev/null
}

# The base system, fetched anew when another list of packages is wanted.
debian_base() {
    [ "$(cat "$work/base.done" 2>/dev/null)" != "$base_packages" ] || return 0
    echo "fetching the base system"
    rm -rf "$work/base" "$work/base.done" && mkdir -p "$work"
    debootstrap --variant=minbase --include=$base_packages bookworm "$work/base" >"$work/debootstrap.log" 2>&1 ||
        skip "can't get the base system: $work/debootstrap.log"
    rm -rf "$work"/base/var/cache/apt/archives/*.deb
    echo "$base_packages" >"$work/base.done"
}
