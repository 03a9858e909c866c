# Checks of the init script for machines without systemd, in the machine of tests/package/checks.sh: in BusyBox's shell and with its
# tools, as on such a machine, and the daemon on the simulated board.
script=/etc/init.d/S50tavor
supervisor="/bin/sh $script supervise " # the command lines of its processes
logger="logger -t tavor "

# BusyBox in the place of the shell that scripts name, in a mount namespace of its own, and its tools before all others.
init_script() {
    PATH=/run/busybox:$PATH LD_PRELOAD=$board_library TAVOR_BOARD_DIR=/run/board unshare --mount \
        bash -c 'mount --bind /bin/busybox /bin/dash && exec "$@"' - $script "$@"
}

# The directory as Buildroot's package makes it: the socket gets its group from there.
prepare_script() {
    systemctl stop tavor-relay.socket tavor-relay tavor
    command install -m 755 S50tavor $script
    mkdir /run/busybox && busybox --install -s /run/busybox
    chmod 2750 $home $home/xod
}
remove_script() {
    rm -r $script /run/busybox
    chmod 750 $home $home/xod
    systemctl start tavor-relay.socket tavor tavor-relay
}

pids_of() { # COMMAND LINE...
    local process
    for process in /proc/[0-9]*; do
        printf '%s\n' "$@" | grep -qxF -e "$(tr '\0' ' ' <$process/cmdline)" && echo "${process#/proc/}"
    done 2>/dev/null
}
daemon_pid() { pidof -s tavor; }
answers() { as_member tavorctl --socket $home/tavor_sun_path --timeout 5 start; }
starts_once() {
    local before=$(daemon_pid)
    init_script start && [ "$(pidof tavor)" = "$before" ]
}
second_leaves_it_alone() {
    tavor >/dev/null
    EXIT_STATUS=$? /usr/libexec/tavor/tavor-service stopped
    power_is on && answers
}
syslog_lines() { journalctl --quiet --no-pager -o cat -t tavor | grep -c LOCSERV; }
comes_again() {
    local before=$(daemon_pid)
    kill -KILL "$before"
    wait_for 15 is_another daemon_pid "$before"
}
# The one that the daemon writes to is gone: the next start gets another.
logs_again() {
    local before=$(syslog_lines)
    kill_logger && comes_again && wait_for 15 answers && wait_for 10 eval '[ "$(syslog_lines)" -gt '"$before"' ]'
}
kill_logger() { kill $(pids_of "$logger"); }
is_running() { [ "$(pids_of "$supervisor" "$logger" | wc -l)" = 2 ] && daemon_pid; }
is_stopped() { power_is off && not daemon_pid && [ -z "$(pids_of "$supervisor" "$logger")" ]; }
status_is_3() {
    init_script status
    [ $? -eq 3 ]
}
# It takes neither the request of a stop nor the signal.
stops_hanging() { answers && kill -STOP "$(daemon_pid)" && init_script stop; }
leaves_nothing() { not ls $home/tavor_sun_path /run/tavor.pid /run/tavor.log; }

initd() {
    prepare_script
    check "init script: start" init_script start
    check "init script: status of what runs" init_script status
    check "started: one process each watches, works and logs" is_running
    check "init script: a member of the group gets a position" position_of_member
    check "init script: the chip has power" power_is on
    check "init script: a second start leaves the daemon alone" starts_once
    check "a second daemon, which ends: the chip keeps its power, the first one answers" second_leaves_it_alone
    check "init script: the log is in syslog" wait_for 10 eval '[ "$(syslog_lines)" -gt 0 ]'
    check "init script: a daemon that has crashed comes again" comes_again
    check "crashed: the chip has no power" power_is off
    check "crashed: the new daemon answers" wait_for 15 answers
    check "init script: so does its log, when its logger is gone" logs_again
    check "init script: restart" init_script restart
    check "restarted: a member of the group gets a position" position_of_member
    check "init script: stop" init_script stop
    check "stopped: no process is left, and the chip has no power" is_stopped
    check "stopped: status says so" status_is_3
    check "stopped: no file is left" leaves_nothing
    check "init script: start behind a stop" init_script start
    check "init script: stop of a daemon that hangs" stops_hanging
    check "killed: no process is left, and the chip has no power" is_stopped
    check "killed: no file is left" leaves_nothing
    remove_script
}
