#!/bin/bash
# Runs as a service of the machine that scripts/package-test.sh has booted: installs, upgrades, removes and purges the packages in
# /test and looks at the service meanwhile. One line for each check, "package-test: good|BAD WHAT"; the last says "done".
test_name=package-test
. /test/lib.sh
. /test/relay.sh
. /test/initd.sh
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
# The simulated board in the place of devices, for the service as it is installed otherwise.
put_on_board() {
    mkdir -p /run/board/etc/default ${drop_in%/*}
    ln -s $home /run/board/etc/default/tavor
    systemd-run --quiet --unit=board tavor-board run --dir /run/board
    wait_for 20 test -S /run/board/board.sock || return 1
    board_library=$(dpkg -L tavor-board | grep 'libtavor_board.so$')
    printf '[Service]\nEnvironment=TAVOR_BOARD_DIR=/run/board LD_PRELOAD=%s\nReadWritePaths=/run/board\n' \
        "$board_library" >$drop_in
    systemctl daemon-reload
    systemctl restart tavor
}

install() {
    check "install" dpkg -i tavor_*.deb tavorctl_*.deb tavor-board_*.deb libtavor-dev_*.deb
    check "installed: the service is enabled" enabled
    check "installed: the service runs, on a machine without a chip too" active
    check "installed: systemd understands every line of tmpfiles.d" [ -z "$(systemd-tmpfiles --create tavor.conf 2>&1)" ]
    check "installed: who is no member of the group is refused" not as_stranger tavorctl stop
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
others_read() { reads_log as_stranger; }
# More in a moment than a journal takes by default.
takes_crowd() {
    seq 30000 | logger --socket /run/systemd/journal.tavor/dev-log --tag crowd
    wait_for 10 eval '[ "$(journalctl --quiet --no-pager -o cat --namespace=tavor -t crowd | wc -l)" = 30000 ]'
}
is_bounded() { journalctl --no-pager -o cat --namespace=tavor | grep '^Runtime Journal .* max 32.0M'; }
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
    check "the log: who reads every journal reads this one" reads_log as_reader
    check "the log: 32 MiB at most" is_bounded
    check "the log: no line of a crowd is lost" takes_crowd
    check "the log: kept over a restart of the machine, where that is wanted" keep_journal
    rm -r /etc/systemd/journald@tavor.conf.d # the test's own
}

upgrade() {
    sed -i 's/^debug socket ip=.*/debug socket ip=127.0.0.1/' $home/tavor.conf
    local before=$(main_pid) conf=$(md5sum $home/tavor.conf $home/service.env)
    touch $home/xod/kept
    tavorctl start >>$log
    check "upgrade" dpkg -i --force-confold newer/*.deb
    check "upgraded: the new version is there" grep -q '+1$' <(dpkg-query -W -f '${Version}\n' tavor)
    check "upgraded: the service runs" active
    check "upgraded: it was restarted" [ "$(main_pid)" != "$before" ]
    check "upgraded: the configuration is kept" [ "$(md5sum $home/tavor.conf $home/service.env)" = "$conf" ]
    check "upgraded: the new version's configuration is beside it" grep -q '^newer$' $home/tavor.conf.dpkg-dist
    check "upgraded: a file of the daemon is kept" test -e $home/xod/kept
    check "upgraded: positioning goes on" talks
    check "upgraded: a member of the group gets a position" position_of_member
}

downgrade() {
    local conf=$(md5sum $home/tavor.conf $home/service.env)
    check "downgrade" dpkg -i --force-confold ./*.deb
    check "downgraded: the old version is there" not grep -q '+1$' <(dpkg-query -W -f '${Version}\n' tavor tavor-relay)
    check "downgraded: the service runs" active
    check "downgraded: the configuration is kept" [ "$(md5sum $home/tavor.conf $home/service.env)" = "$conf" ]
    check "downgraded: positioning goes on" talks
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
    mkdir $home/da && : >$home/da/agent
    check "purge" apt-get -y -qq purge tavor tavorctl tavor-relay tavor-relay-mqtt tavor-board libtavor-dev
    check "purged: what an administrator put beside the configuration is kept" test -e $home/da/agent
    rm -r $home/da && rmdir $home
    list_files >files.after
    check "purged: nothing else is left" no_leftovers
    check "purged: no unit has failed" [ -z "$(systemctl list-units --failed --plain --no-legend)" ]
}

useradd member
useradd --groups adm reader
list_files >files.before
install
use
resume
journal
relay
initd
upgrade
downgrade
remove
purge
echo "package-test: done"
