# 200 times start and stop: every one is answered, and descriptors and memory stay as they are.
. /lib.sh

descriptors() { ls /proc/$daemon_pid/fd | wc -l; }
memory_kib() { awk '/^VmRSS/ {print $2}' /proc/$daemon_pid/status; }
threads() { awk '/^Threads/ {print $2}' /proc/$daemon_pid/status; }
cycles() {
    for i in $(seq "$1"); do
        ctl start >/dev/null || fail "start of cycle $i"
        expect 1 "$(cat /sys/class/gpio/gpio17/value)" "power line in cycle $i"
        ctl stop >/dev/null || fail "stop of cycle $i"
        expect 0 "$(cat /sys/class/gpio/gpio17/value)" "power line behind cycle $i"
    done
}

board_start
daemon_start
cycles 20 # what a daemon takes once
descriptors=$(descriptors) threads=$(threads) memory=$(memory_kib)
cycles 200
expect "$descriptors" "$(descriptors)" "descriptors"
expect "$threads" "$(threads)" "threads"
grown=$(($(memory_kib) - memory))
echo "$descriptors descriptors, $threads threads, $memory KiB, $grown KiB more at the end"
[ $grown -le 256 ] || fail "the daemon has grown by $grown KiB" # a page of each cycle would be 800
