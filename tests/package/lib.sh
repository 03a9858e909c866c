# What the checks of the packages and of the service share. Each check is a line, "NAME-test: good|BAD WHAT".
set -u
export DEBIAN_FRONTEND=noninteractive LC_ALL=C PATH=/usr/sbin:/usr/bin:/sbin:/bin
home=/etc/default/tavor
log=/test/log

# check WHAT COMMAND...
check() {
    local what=$1
    shift
    if "$@" >>$log 2>&1; then
        echo "$test_name: good  $what"
    else
        echo "$test_name: BAD   $what"
        journalctl --no-pager -n 15 -o cat --namespace=+tavor -u tavor -u tavor-relay | sed 's/^/    /'
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
not() { ! "$@"; }
power_is() { [ "$(tavor-board ctl --dir /run/board power)" = "$1" ]; }
main_pid() { systemctl show -P MainPID tavor; }
as_member() { setpriv --reuid member --regid member --init-groups "$@"; }
as_reader() { setpriv --reuid reader --regid reader --init-groups "$@"; } # of every journal
as_stranger() { setpriv --reuid nobody --regid nogroup --clear-groups "$@"; }
reads_log() { [ "$("$@" journalctl --quiet --no-pager -o cat --namespace=tavor | grep -c LOCSERV)" -gt 0 ]; }
member_reads() { reads_log as_member; }
position_of_member() { as_member tavorctl --timeout 20 position | grep '^latitude'; }

# Sentences come from the chip: nothing but the daemon fetches them.
delivered() { tavor-board ctl --dir /run/board status --json | sed -n 's/.*"bytes_delivered":\([0-9]*\).*/\1/p'; }
talks() {
    local before=$(delivered)
    wait_for 15 eval '[ "$(delivered)" -gt '"${before:-0}"' ]'
}

# is_another FUNCTION OLD: what the function prints is a process, and not this one.
is_another() {
    local now=$("$1")
    [ "${now:-0}" != 0 ] && [ "$now" != "$2" ]
}

# The daemon fails, and systemd starts another.
crash() {
    local before=$(main_pid)
    kill -KILL "$before"
    wait_for 15 is_another main_pid "$before" && wait_for 15 active
}

# configure_relay LINE: the only one of its settings.
configure_relay() {
    command install -D -m 644 /dev/stdin /etc/tavor/relay.conf <<<"$1"
    systemctl restart tavor-relay
}
