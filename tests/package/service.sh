#!/bin/bash
# Runs as a service of the emulated machine that scripts/service-test.sh has booted: all that the daemon can do, under its unit, on the
# kernel's spidev, GPIO and serial lines. Twice, as root and as user tavor.
test_name=service-test
. /test/lib.sh
cd /test
line=/sys/class/gpio/gpio17
flash_size=131072

# But for the saved location, which is missing until there is one.
failed_to_open() { journalctl --namespace=tavor --quiet --no-pager -o cat | grep "open fail" | grep -v "location.dat$"; }
board() { tavor-board ctl --dir /run/board "$@"; }
file_has() { wait_for 30 grep -aq "$2" "$1"; }
set_key() { sed -i "s|^$1=.*|$1=$2|" $home/tavor.conf; }
line_is() { [ "$(cat $line/value)" = "$1" ]; }
runs_as() { [ "$(stat -c %U "/proc/$(main_pid)")" = "$1" ]; }

# Between the daemon and this board stand the kernel's drivers.
load_board() {
    insmod i2c-dev.ko && insmod tavor_board.ko
    wait_for 10 test -c /dev/spidev1.0 || return 1
    mkdir -p /run/board/etc/default
    ln -s $home /run/board/etc/default/tavor
    systemd-run --quiet --unit=board tavor-board run --dir /run/board --kernel-device /dev/tavor-board --aiding --flash-size $flash_size
    wait_for 20 test -S /run/board/board.sock
}

answers_command() { as_member tavorctl send 353,1,1 --wait 5 | grep -F '$PZUL001,353,0*27'; }
saves() { rm -f "$1" && as_member tavorctl save && file_has "$1" =; }
orbits_are_good() {
    [ "$(board status --json | grep -o '"aiding_orbits":{.*"aiding_position"' | grep -o '"verdict":"good"' | wc -l)" = 4 ]
}

# What the client types gets its answer over the same connection.
over_tcp() {
    tavorctl debug tcp || return 1
    exec 7<>/dev/tcp/127.0.0.1/7005 || return 1
    printf '$PZUL353,1,1*26\r\n' >&7
    timeout 30 cat <&7 >tcp &
    file_has tcp '^\$GNRMC' && file_has tcp '^\$PZUL001,353,0'
    local result=$?
    kill $!
    exec 7>&-
    return $result
}

over_serial() {
    stty -F /dev/ttyS3 115200 raw -echo || return 1
    timeout 60 cat /dev/ttyS3 >serial &
    tavorctl debug serial || return 1
    file_has serial '^\$GNRMC' || return 1
    printf '$PZUL353,1,1*26\r\n' >/dev/ttyS3
    file_has serial '^\$PZUL001,353,0'
    local result=$?
    kill $!
    return $result
}

# A download agent, and two images of which the first is no multiple of a block.
make_firmware() {
    mkdir -p $home/da $home/load
    head -c 1025 /dev/urandom >$home/da/qx7710_da.bin
    head -c 28673 /dev/urandom >$home/load/first.bin
    head -c 32768 /dev/urandom >$home/load/second.bin
    for image in first:0x08000000 second:0x08008000; do
        printf -- '- rom:\n    file: %s.bin\n    name: %s\n    begin_address: %s\n' ${image%:*} ${image%:*} ${image#*:}
    done >$home/load/flash_download.cfg
}

flash_holds_it() {
    tr '\000' '\377' </dev/zero | head -c $flash_size >flash
    dd if=$home/load/first.bin of=flash conv=notrunc
    dd if=$home/load/second.bin of=flash conv=notrunc bs=32768 seek=1
    cmp flash /run/board/flash.bin
}

# A device that the unit does not name, opened among the daemon's processes, for which the kernel asks the same rules.
may_open() {
    bash -c 'echo $$ >/sys/fs/cgroup/system.slice/tavor.service/cgroup.procs; exec 5<>"$1"' may_open "$1"
}

# Its client waits 10 s in vain.
stops_hanging() {
    kill -STOP "$(main_pid)"
    timeout 15 systemctl stop tavor && not active
}

# More often than systemd starts a service by default.
crashes_often() {
    local round
    for round in 1 2 3 4 5 6; do crash || return 1; done
}

# all USER
all() {
    check "$1: the service runs" active
    check "$1: it is this user's" runs_as "$1"
    check "$1: start" tavorctl start
    check "$1: the power line is on" line_is 1
    check "$1: sentences come" talks
    check "$1: a member of the group gets a position" position_of_member
    check "$1: a member of the group reads the log" member_reads
    check "$1: a command is answered by the chip" answers_command
    check "$1: the position is saved" saves $home/location.dat
    set_key "NMEA file path" $home/other.dat
    check "$1: the settings are read anew" saves $home/other.dat
    set_key "NMEA file path" $home/location.dat
    rm -f $home/log.dat
    check "$1: debug outlet: log file" tavorctl debug file
    check "$1: debug outlet: sentences in the file" file_has $home/log.dat '^\$GNRMC'
    check "$1: debug outlet: TCP, both ways" over_tcp
    check "$1: debug outlet: serial line, both ways" over_serial
    check "$1: debug outlet: off" tavorctl debug off
    rm -f $home/xod/*
    check "$1: assistance files come over HTTP" tavorctl assist --once
    check "$1: restart" systemctl restart tavor
    check "$1: positioning goes on" talks
    check "$1: six crashes, one behind the other" crashes_often
    check "$1: positioning goes on again" talks
    tavorctl stop >>$log && tavorctl start >>$log
    check "$1: the chip gets orbit data" wait_for 120 orbits_are_good
    make_firmware
    check "$1: firmware is written" tavorctl download
    check "$1: the flash holds it" flash_holds_it
    check "$1: the new firmware gives a position" position_of_member
    check "$1: other devices are refused" not may_open /dev/kmsg
    check "$1: the chip's is not" may_open /dev/spidev1.0
    check "$1: stop of the service" systemctl stop tavor
    check "$1: the power line is off" line_is 0
    systemctl start tavor && tavorctl start >>$log
    check "$1: the power line is on again" line_is 1
    check "$1: stop of a daemon that hangs, in 15 s" stops_hanging
    check "$1: the power line is off then too" line_is 0
    check "$1: nothing could not be opened" not failed_to_open
}

# One of this machine's addresses, but not of loopback's: for the relay's unit a broker elsewhere.
put_broker_elsewhere() {
    ip address add 192.0.2.1/32 dev lo
    printf 'listener 1883 192.0.2.1\nallow_anonymous true\n' >/run/broker.conf
    systemd-run --quiet --unit=broker mosquitto -c /run/broker.conf
    wait_for 20 mosquitto_pub -h 192.0.2.1 -t test -m is-there || return 1
    configure_relay mqtt=192.0.2.1
}
is_published() { timeout "$1" mosquitto_sub -h 192.0.2.1 -t 'tavor/+/position' -C 1 | grep -F '"latitude":'; }
allow_broker() {
    install -D -m 644 /dev/stdin /etc/systemd/system/tavor-relay.service.d/broker.conf <<<$'[Service]\nIPAddressAllow=192.0.2.1'
    systemctl daemon-reload
    systemctl restart tavor-relay
}
# Its supervisor hears nothing of it for 10 s.
relay_hangs() {
    local before=$(relay_pid)
    kill -STOP "$before"
    wait_for 30 is_another relay_pid "$before"
}
relay_pid() { systemctl show -P MainPID tavor-relay; }
gpsd_protocol_is_served() {
    exec 7<>/dev/tcp/127.0.0.1/2947 && timeout 10 head -n 1 <&7 | grep '"class":"VERSION"'
    local result=$?
    exec 7>&-
    return $result
}

broker() {
    check "the service runs for the relay" systemctl start tavor
    check "the relay has a position" position_of_member
    check "a broker that is not on loopback" put_broker_elsewhere
    check "the relay's unit keeps it from other hosts" not is_published 15
    check "with the manual's drop-in it publishes there" eval 'allow_broker && is_published 60'
    check "a relay that hangs is started anew" relay_hangs
    check "a member of the group gets a position of it" position_of_member
    check "loopback is allowed still" gpsd_protocol_is_served
    systemctl stop tavor
}

become_user() {
    mkdir -p /etc/systemd/system/tavor.service.d
    cp /usr/share/doc/tavor/examples/tavor-user.conf /etc/systemd/system/tavor.service.d/user.conf
    sed 's/ttyS1/ttyS2/' /usr/share/doc/tavor/examples/tavor.rules >/etc/udev/rules.d/60-tavor.rules
    chown -R tavor $home/xod
    rm -f $home/log.dat
    echo 17 >/sys/class/gpio/unexport # as after a start of the machine
    udevadm control --reload && udevadm trigger --settle && systemctl daemon-reload && systemctl start tavor
}

useradd member && usermod -a -G tavor,tavor-admin member # a command takes that right of the relay
check "the board is loaded" load_board
set_key "debug socket ip" 127.0.0.1
printf 'debug port path=/dev/ttyS2\ndebug port baudrate=115200\n' | cat - $home/tavor.conf >conf && cat conf >$home/tavor.conf
systemctl restart tavor
all root
broker
check "as the documentation says: become user tavor" become_user
all tavor
echo "service-test: done"
