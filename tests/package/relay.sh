# Checks of the relay in the machine of tests/package/checks.sh: its rights, its metrics, and the time that it tells chronyd.
metrics_socket=/run/tavor/relay.sock.metrics
chrony_drop_ins=/etc/systemd/system/chrony.service.d

break_relay() {
    configure_relay nonsense=1
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

get_metrics() { "$@" curl -sS --fail --max-time 5 --unix-socket $metrics_socket http://relay/metrics; }
member_gets_metrics() { get_metrics as_member >metrics && grep -x 'tavor_relay_daemon_up 1' metrics; }
are_prometheus_text() {
    local name='[a-z_]+' value='(NaN|[0-9.e+-]+)'
    [ -s metrics ] && not grep -vE "^(# (HELP|TYPE) $name .+|$name(\{$name=\"[^\"]*\"\})? $value)\$" metrics
}
stranger_gets_no_metrics() {
    get_metrics as_stranger
    [ $? -eq 7 ] # no connection
}
status_tells() { as_member tavorctl status --json >status && grep -F "$1" status; }
tells_of_relay() { status_tells '"relay":{"socket":"/run/tavor/relay.sock","answers":true,'; }

relay_log_has() { journalctl --quiet --no-pager -o cat -u tavor-relay | grep -qF "$1"; }
# With another program in the same process the unit goes on: its start waits for the notice of its main process.
relay_publishes() {
    relay_runs && relay_log_has "MQTT broker 127.0.0.1: Connection refused" &&
        [ "/proc/$(systemctl show -P MainPID tavor-relay)/exe" -ef /usr/libexec/tavor/tavor-relay-mqtt ]
}

# The files of an example in the manual, each after a comment with its path: written as they stand there.
write_from_manual() { # PAGE, FIRST FILE
    zcat "$1" | sed -n "\\|^# $2|,/^\\.fi/p" | sed '$d; s/\\-/-/g' | awk '
        /^# \// { file = $2; in_one_line = sub(/,$/, "", file); system("mkdir -p $(dirname " file ")"); next }
        { printf "%s%s", $0, in_one_line ? " " : "\n" >file }'
}

# chronyd as Debian starts it, but for the clock of this machine, which it leaves alone (-x).
put_chronyd_beside() {
    write_from_manual /usr/share/man/man8/tavor-relay.8.gz /etc/chrony/conf.d/tavor.conf
    grep '^chrony=' /etc/tavor/relay.conf || return 1
    printf '[Unit]\nConditionCapability=\n[Service]\nEnvironment=DAEMON_OPTS=-x\nEnvironmentFile=\n' >$chrony_drop_ins/test.conf
    systemctl daemon-reload
    systemctl restart chrony tavor-relay && relay_runs
}
chronyd_leaves_the_clock() { tr '\0' ' ' <"/proc/$(systemctl show -P MainPID chrony)/cmdline" | grep -- ' -x '; }
# Some of the last eight samples were taken, in octal.
chronyd_takes_samples() { chronyc -n sources >sources && grep -E '^#[^ ]+ +GNSS +0 +3 +[1-7][0-7]* ' sources; }
# Within half a second: the board's chip and this machine share one clock.
chronyd_agrees() { chronyc -c sources | awk -F, '$3 == "GNSS" { found = $8 < 0.5 && $8 > -0.5 } END { exit !found }'; }
take_chronyd_away() {
    systemctl stop chrony
    rm -r $chrony_drop_ins /etc/chrony/conf.d/tavor.conf /etc/tavor/relay.conf && rmdir /etc/tavor
    rm -r /var/log/chrony && find /var/lib/chrony -type f -delete
    systemctl daemon-reload
    systemctl restart tavor-relay && relay_runs
}

chrony() {
    check "chronyd beside the relay, as the manual says" put_chronyd_beside
    check "chronyd: the machine's clock is left alone" chronyd_leaves_the_clock
    check "chronyd takes the time from the relay" wait_for 60 chronyd_takes_samples
    check "chronyd: the time is right" chronyd_agrees
    check "chronyd is started anew" systemctl restart chrony
    check "chronyd takes the time again" wait_for 60 chronyd_takes_samples
    check "chronyd is taken away, the relay runs" take_chronyd_away
}

# By default it keeps positioning on.
relay() {
    check "install the relay" dpkg -i tavor-relay_*.deb
    check "the relay runs" wait_for 10 relay_runs
    check "through the relay: a member of the group gets a position" position_of_member
    check "metrics: a member of the group gets them" member_gets_metrics
    check "metrics: Prometheus reads them" are_prometheus_text
    check "metrics: others are refused" stranger_gets_no_metrics
    check "status asks the relay, at its usual place" tells_of_relay
    check "status knows by the relay that positioning is on" status_tells '"positioning":true'
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
    check "MQTT without its package: the relay doesn't start" not configure_relay mqtt=127.0.0.1:1
    check "MQTT without its package: the log says what to install" relay_log_has "install the package tavor-relay-mqtt"
    check "install the relay's MQTT" dpkg -i tavor-relay-mqtt_*.deb
    check "the relay comes again, and publishes" wait_for 20 relay_publishes
    check "the relay runs without MQTT" mend_relay
    chrony
}
