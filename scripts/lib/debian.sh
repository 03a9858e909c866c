# Debian packages of this tree, a Debian 12 to install them in, and checks that run there as a service. Whoever takes this has set $name,
# its own name.
work=$PWD/build/package-test

# What the packages need beside systemd, and what is tried together with them: they are installed without a network.
base_packages=systemd,systemd-sysv,dbus,udev,kmod,libcurl4,libmbedcrypto7,libmicrohttpd12,libncursesw6,libevent-core-2.1-7,libevent-extra-2.1-7,libmosquitto1
base_packages+=,curl,chrony,mosquitto,mosquitto-clients,busybox
base_services=(chrony mosquitto) # which are not started before a check does it

usage() {
    cat <<EOT
usage: scripts/$name.sh [--packages DIR] [--no-install]
  --packages DIR   take the packages of scripts/package.sh from there instead of making them anew
  --no-install     don't install missing packages on this machine
Needs root, but no hardware acceleration, and fetches Debian's base system once, into build/package-test. Exit codes: 0 all checks
passed, 1 one failed, 77 not run because something can't be had.
EOT
}

skip() {
    echo "$name: not run: $*"
    exit 77
}

take_options() {
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
}

# debian_tools PACKAGE...: root, and these.
debian_tools() {
    local package missing=()
    [ "$(id -u)" -eq 0 ] || skip "this takes root"
    command -v dpkg-query >/dev/null || skip "this is no Debian system"
    for package in debootstrap "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    [ $install = yes ] || skip "missing packages: ${missing[*]} (scripts/setup.sh --all as root gets them)"
    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}"; } >/dev/null ||
        skip "can't install ${missing[*]}"
}

debian_packages() {
    if [ -n "$packages" ]; then
        compgen -G "$packages/tavor_*.deb" >/dev/null || skip "no packages in $packages"
        return 0
    fi
    command -v dh >/dev/null && command -v dpkg-buildpackage >/dev/null || skip "debhelper or dpkg-dev is missing"
    packages=build/package
    scripts/package.sh >/dev/null
}

# copy_packages DIR: those that a device gets, without the debugging symbols.
copy_packages() { find "$packages" -maxdepth 1 -name '*.deb' ! -name '*-dbgsym_*' -exec cp {} "$1" \;; }

# The base system, fetched anew when another list of packages is wanted. It comes from where this machine's packages come from.
debian_base() {
    local archive
    [ "$(cat "$work/base.done" 2>/dev/null)" != "$base_packages" ] || return 0
    echo "fetching the base system"
    archive=$(apt-get indextargets --format '$(REPO_URI) $(LABEL)' 'Created-By: Packages' | sed -n 's/ Debian$//p' | head -n 1)
    rm -rf "$work/base" "$work/base.done" && mkdir -p "$work"
    debootstrap --variant=minbase --include=$base_packages bookworm "$work/base" $archive >"$work/debootstrap.log" 2>&1 ||
        skip "can't get the base system: $work/debootstrap.log"
    chroot "$work/base" systemctl --quiet disable "${base_services[@]}" >>"$work/debootstrap.log" 2>&1
    rm -rf "$work"/base/var/cache/apt/archives/*.deb
    echo "$base_packages" >"$work/base.done"
}

# write_test_unit ROOT SCRIPT SETTING...: a service that runs the script when the system of that root is up, and switches it off after
# it.
write_test_unit() {
    local units=$1/etc/systemd/system
    mkdir -p "$units/multi-user.target.wants"
    cat >"$units/$name.service" <<EOT
[Unit]
SuccessAction=poweroff-force
FailureAction=poweroff-force
[Service]
Type=oneshot
ExecStart=/bin/bash $2
$(printf '%s\n' "${@:3}")
[Install]
WantedBy=multi-user.target
EOT
    ln -s "../$name.service" "$units/multi-user.target.wants/"
}

# report RESULTS LOG...: prints the results, and the logs' ends where the checks did not come to theirs.
report() {
    local results=$1
    shift
    cat "$results" 2>/dev/null || true
    if ! grep -q "^$name: done\$" "$results" 2>/dev/null; then
        tail -q -n 20 "$@" >&2 || true
        echo "$name: FAILED: the system ended before its checks did" >&2
        exit 1
    fi
    if grep -q "^$name: BAD" "$results"; then
        echo "$name: FAILED after $SECONDS s"
        exit 1
    fi
    echo "$name: done after $SECONDS s, $(grep -c "^$name: good" "$results") checks passed"
}
