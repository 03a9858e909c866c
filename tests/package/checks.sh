#!/bin/bash
# Runs as a service of the machine that scripts/package-test.sh has booted: installs, upgrades, removes and purges the packages in
# /test and looks at the service meanwhile. One line for each check, "package-test: good|BAD WHAT"; the last says "done".
set -u
cd /test
export DEBIAN_FRONTEND=noninteractive LC_ALL=C PATH=/usr/sbin:/usr/bin:/sbin:/bin
home=/etc/default/tavor
drop_in=/etc/systemd/system/tavor.service.d/board.conf
log=/test/log

# check WHAT COMMAND...
check() {
    local what=$1
    shift
    if "$@" >>$log 2>&1; then
        echo "package-test: good  $what"
    else
        echo "package-test: BAD   $what"
        journalctl --no-pager -n 15 -o cat -u tavor | sed 's/^/    /'
        tail -n 5 $log | sed 's/^/    /'
    fi
}

# wait_for SECONDS COMMAND...: until it succeeds.
wait_for() {
    local end=$((SECONDS + $1))
    shift
    until "$@"; do
        [ $SECONDS -lt $end ] || return 1
        sleep 0.1
    done
}

active() { systemctl is-active --quiet tavor; }
enabled() { systemctl is-enabled --quiet tavor; }
not() { ! "$@"; }
power_is() { [ "$(tavor-board ctl --dir /run/board power)" = "$1" ]; }
main_pid() { systemctl show -P MainPID tavor; }
as_member() { setpriv --reuid member --regid member --init-groups "$@"; }
position_of_member() { as_member tavorctl --timeout 20 position | grep '^latitude'; }
restart_and_start() { systemctl restart tavor && tavorctl start; }
# Of everything on the machine but what the package manager keeps and what lives in memory only.
list_files() { find / -xdev \( -path /test -o -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path /var/tmp \
    -o -path /var/lib/dpkg -o -path /var/lib/systemd/deb-systemd-helper-enabled -o -path /var/log/journal \) -prune -o -print | sort; }
no_leftovers() { diff files.before files.after && [ -z "$(find /var/log/journal /run/log/journal -name '*tavor*' 2>/dev/null)" ]; }

# The simulated board in the place of devices, for the service as it is installed otherwise.
put_on_board() {
    mkdir -p /run/board/etc/default ${drop_in%/*}
    ln -s $home /run/board/etc/default/tavor
    systemd-run --quiet --unit=board tavor-board run --dir /run/board
    wait_for 20 test -S /run/board/board.sock || return 1
    printf '[Service]\nEnvironment=TAVOR_BOARD_DIR=/run/board LD_PRELOAD=%s\nReadWritePaths=/run/board\n' \
        "$(dpkg -L tavor-board | grep 'libtavor_board.so$')" >$drop_in
    systemctl daemon-reload
    systemctl restart tavor
}

install() {
    check "install" dpkg -i tavor_*.deb tavorctl_*.deb tavor-board_*.deb libtavor-dev_*.deb
    check "installed: the service is enabled" enabled
    check "installed: the service runs, on a machine without a chip too" active
    check "installed: who is no member of the group is refused" not setpriv --reuid nobody --clear-groups tavorctl stop
    check "on the simulated board: the service runs" put_on_board
    usermod -a -G tavor member
}

use() {
    check "start" tavorctl start
    check "started: the chip has power" power_is on
    check "a member of the group gets a position" position_of_member
    for round in 1 2 3; do
        check "restart and start, round $round" restart_and_start
    done
    check "stop of the service" systemctl stop tavor
    check "stopped: the chip has no power" power_is off
    check "start of the service" systemctl start tavor
    check "started again: a member of the group gets a position" position_of_member
}

upgrade() {
    local before=$(main_pid) conf=$(md5sum $home/tavor.conf)
    touch $home/xod/kept
    check "upgrade" dpkg -i newer/*.deb
    check "upgraded: the new version is there" grep -q '+1$' <(dpkg-query -W -f '${Version}\n' tavor)
    check "upgraded: the service runs" active
    check "upgraded: it was restarted" [ "$(main_pid)" != "$before" ]
    check "upgraded: the configuration is kept" [ "$(md5sum $home/tavor.conf)" = "$conf" ]
    check "upgraded: a file of the daemon is kept" test -e $home/xod/kept
    check "upgraded: a member of the group gets a position" position_of_member
}

remove() {
    local conf=$(md5sum $home/tavor.conf)
    check "remove" apt-get -y -qq remove tavor
    check "removed: the service is gone" not active
    check "removed: the chip has no power" power_is off
    check "removed: the configuration is kept" [ "$(md5sum $home/tavor.conf)" = "$conf" ]
}

purge() {
    systemctl stop board
    rm -rf /run/board ${drop_in%/*} # the test's own
    check "purge" apt-get -y -qq purge tavor tavorctl tavor-board libtavor-dev
    list_files >files.after
    check "purged: nothing is left" no_leftovers
    check "purged: no unit has failed" [ -z "$(systemctl list-units --failed --plain --no-legend)" ]
}

useradd member
list_files >files.before
install
use
upgrade
remove
purge
echo "package-test: done"
