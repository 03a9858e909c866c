#!/bin/bash
# Runs as a service of the machine that scripts/package-test.sh has booted: installs, upgrades, removes and purges the packages in
# /test and looks at the service meanwhile. One line for each check, "package-test: good|BAD WHAT"; the last says "done".
test_name=package-test
. /test/lib.sh
cd /test
drop_in=/etc/systemd/system/tavor.service.d/board.conf

enabled() { systemctl is-enabled --quiet tavor; }
restart_and_start() { systemctl restart tavor && tavorctl start; }
# Of everything on the machine but what the package manager keeps and what lives in memory only.
list_files() { find / -xdev \( -path /test -o -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path /var/tmp \
    -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache/apt -o -path /var/log/apt \
    -o -path /var/lib/systemd/deb-systemd-helper-enabled -o -path /var/log/journal \) -prune -o -print | sort; }
no_leftovers() { diff files.before files.after && [ -z "$(find /var/log/journal /run/log/journal -name '*tavor*' 2>/dev/null)" ]; }

set_resume() { sed -i "s/^TAVOR_RESUME=.*/TAVOR_RESUME=$1/" $home/service.env; }
crash() {
    local before=$(main_pid)
    kill -KILL "$before"
    wait_for 15 eval 'active && [ "$(main_pid)" != 0 ] && [ "$(main_pid)" != '"$before"' ]'
}

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
    check "installed: systemd understands every line of tmpfiles.d" [ -z "$(systemd-tmpfiles --create tavor.conf 2>&1)" ]
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

# Positioning after the end of a daemon.
resume() {
    tavorctl start >>$log
    check "restart while positioning is on" systemctl restart tavor
    check "restarted: positioning goes on" talks
    check "crash while positioning is on: the service comes again" crash
    check "crashed: positioning goes on" talks
    tavorctl stop >>$log
    systemctl restart tavor
    check "restart behind a stop: the chip stays off" power_is off
    check "crash behind a stop: the service comes again" crash
    check "crashed behind a stop: the chip stays off" power_is off
    tavorctl start >>$log
    systemctl stop tavor && systemctl start tavor
    check "stop and start of the service: the chip stays off" power_is off
    check "a socket file left behind: kept while the machine runs" not clears_socket
    check "a socket file left behind: removed at the machine's start" clears_socket --boot
    systemctl start tavor
    set_resume no && tavorctl start >>$log && systemctl restart tavor
    check "TAVOR_RESUME=no: the chip stays off" power_is off
    set_resume always && systemctl restart tavor
    check "TAVOR_RESUME=always: positioning begins" talks
    set_resume restart
}

clears_socket() { # OPTION...: what the machine's start does with a socket file that a power cut has left
    systemctl stop tavor
    : >$home/tavor_sun_path
    systemd-tmpfiles --remove "$@" tavor.conf
    not test -e $home/tavor_sun_path
}

log_lines() { journalctl --quiet --no-pager -o cat "$@" | grep -c LOCSERV; }
others_read() { setpriv --reuid nobody --clear-groups journalctl --quiet --no-pager -o cat --namespace=tavor | grep -q LOCSERV; }
member_is_denied() { as_member tavorctl download 2>&1 | grep "can't be read"; }
status_knows() { as_member tavorctl status --json | grep '"log":"journal".*"positioning":true\|"positioning":true.*"log":"journal"'; }
keep_journal() {
    mkdir -p /etc/systemd/journald@tavor.conf.d
    printf '[Journal]\nStorage=persistent\n' >/etc/systemd/journald@tavor.conf.d/keep.conf
    command install -d -m 2750 -g tavor "/var/log/journal/$(cat /etc/machine-id).tavor"
    systemctl restart systemd-journald@tavor
    systemctl restart tavor
    journalctl --namespace=tavor --flush
    wait_for 10 eval 'ls /var/log/journal/*.tavor/system.journal && member_reads'
}

journal() {
    check "the log: its own journal has it" [ "$(log_lines --namespace=tavor)" -gt 0 ]
    check "the log: the system's journal has no line of it" [ "$(log_lines)" -eq 0 ]
    check "the log: a member of the group reads it" member_reads
    check "the log: others don't" not others_read
    check "the log: the client tool reads it as the member" not member_is_denied
    check "the log: the state of positioning is known from it" status_knows
    check "the log: kept over a restart of the machine, where that is wanted" keep_journal
    rm -r /etc/systemd/journald@tavor.conf.d # the test's own
}

break_relay() {
    command install -D -m 644 /dev/stdin /etc/tavor/relay.conf <<<'nonsense=1'
    systemctl restart tavor-relay
    wait_for 10 not relay_runs
}
mend_relay() {
    rm -r /etc/tavor
    systemctl restart tavor-relay
}

relay_runs() { systemctl is-active --quiet tavor-relay; }
# Its socket is systemd's, and stays when it is stopped: a request starts it.
stop_relay() { systemctl stop tavor-relay && not relay_runs && systemctl is-active --quiet tavor-relay.socket; }
request_starts_relay() { position_of_member && relay_runs; }
outlet_by_member() { as_member tavorctl --socket /run/tavor/relay.sock debug file; }
become_admin() { usermod -a -G tavor-admin member; }

ask_for_mqtt() {
    command install -D -m 644 /dev/stdin /etc/tavor/relay.conf <<<'mqtt=127.0.0.1:1'
    systemctl restart tavor-relay
}
relay_log_has() { journalctl --quiet --no-pager -o cat -u tavor-relay | grep -qF "$1"; }
# With another program in the same process the unit goes on: its start waits for the notice of its main process.
relay_publishes() {
    relay_runs && relay_log_has "MQTT broker 127.0.0.1: Connection refused" &&
        [ "$(readlink "/proc/$(systemctl show -P MainPID tavor-relay)/exe")" = /usr/libexec/tavor/tavor-relay-mqtt ]
}

# By default it keeps positioning on.
relay() {
    check "install the relay" dpkg -i tavor-relay_*.deb
    check "the relay runs" wait_for 10 relay_runs
    check "through the relay: a member of the group gets a position" position_of_member
    check "the relay stops, its socket stays" stop_relay
    check "a request starts the relay" request_starts_relay
    check "a member may not do what disturbs others" not outlet_by_member
    check "a member of tavor-admin too may" eval 'become_admin && wait_for 20 outlet_by_member'
    tavorctl debug off >>$log
    check "restart behind a relay: positioning goes on" eval 'systemctl restart tavor && talks'
    tavorctl start >>$log
    check "a relay that can't start" break_relay
    check "restart behind it: positioning goes on" eval 'systemctl restart tavor && talks'
    check "the relay runs again" mend_relay
    check "MQTT without its package: the relay doesn't start" not ask_for_mqtt
    check "MQTT without its package: the log says what to install" relay_log_has "install the package tavor-relay-mqtt"
    check "install the relay's MQTT" dpkg -i tavor-relay-mqtt_*.deb
    check "the relay comes again, and publishes" wait_for 20 relay_publishes
    check "the relay runs without MQTT" mend_relay
}

upgrade() {
    local before=$(main_pid) conf=$(md5sum $home/tavor.conf $home/service.env)
    touch $home/xod/kept
    tavorctl start >>$log
    check "upgrade" dpkg -i newer/*.deb
    check "upgraded: the new version is there" grep -q '+1$' <(dpkg-query -W -f '${Version}\n' tavor)
    check "upgraded: the service runs" active
    check "upgraded: it was restarted" [ "$(main_pid)" != "$before" ]
    check "upgraded: the configuration is kept" [ "$(md5sum $home/tavor.conf $home/service.env)" = "$conf" ]
    check "upgraded: a file of the daemon is kept" test -e $home/xod/kept
    check "upgraded: positioning goes on" talks
    check "upgraded: a member of the group gets a position" position_of_member
}

remove() {
    local conf=$(md5sum $home/tavor.conf $home/service.env)
    check "remove" apt-get -y -qq remove tavor
    check "removed: the service is gone" not active
    check "removed: the chip has no power" power_is off
    check "removed: the configuration is kept" [ "$(md5sum $home/tavor.conf $home/service.env)" = "$conf" ]
}

purge() {
    systemctl stop board
    rm -rf /run/board ${drop_in%/*} # the test's own
    check "purge" apt-get -y -qq purge tavor tavorctl tavor-relay tavor-relay-mqtt tavor-board libtavor-dev
    list_files >files.after
    check "purged: nothing is left" no_leftovers
    check "purged: no unit has failed" [ -z "$(systemctl list-units --failed --plain --no-legend)" ]
}

useradd member
list_files >files.before
install
use
resume
journal
relay
upgrade
remove
purge
echo "package-test: done"
