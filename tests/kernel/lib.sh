# What the checks share: the board and the daemon on it, and waits with a bound.

socket=/etc/default/tavor/tavor_sun_path

fail() {
    echo "FAILED: $*"
    exit 1
}

uptime_cs() {
    local up rest
    read -r up rest </proc/uptime
    echo "${up%.*}${up#*.}"
}

# wait_for SECONDS COMMAND...: until the command succeeds.
wait_for() {
    local limit=$(($(uptime_cs) + $1 * 100))
    shift
    until "$@" >/dev/null 2>&1; do
        [ "$(uptime_cs)" -lt $limit ] || fail "waited in vain for: $*"
        sleep 0.02
    done
}

# module_load [PARAMETER=VALUE]...
module_load() {
    insmod /tavor_board.ko "$@"
    wait_for 5 test -c /dev/tavor-board
}

# board_start [OPTION]...: of tavor-board run. Loads the module if none is there.
board_start() {
    [ -c /dev/tavor-board ] || module_load
    tavor-board run --dir /board --kernel-device /dev/tavor-board "$@" >/tmp/board.log 2>&1 &
    board_pid=$!
    wait_for 10 grep -q '^ready ' /tmp/board.log
}

# daemon_start [PROGRAM]: the program as it is shipped, without anything preloaded.
daemon_start() {
    ${1:-tavor} >/tmp/daemon.log 2>&1 &
    daemon_pid=$!
    wait_for 10 test -S $socket
}

daemon_end() {
    kill $daemon_pid
    wait $daemon_pid || true
    rm -f $socket
}

ctl() { tavorctl --socket $socket "$@"; }

board() { tavor-board ctl --dir /board "$@"; }

# status KEY: one number or word of the chip's state.
status() { board status --json | tr ',{}' '\n\n\n' | sed -n "s/^\"$1\"://p" | head -n 1 | tr -d '"'; }

# expect WANTED GOT WHAT
expect() { [ "$1" = "$2" ] || fail "$3: expected \"$1\", got \"$2\""; }

# logged TEXT: whether the daemon has printed it.
logged() { grep -qF "$1" /tmp/daemon.log; }

# A download agent, two images and their list. The first is no multiple of a block.
firmware_make() {
    local home=/etc/default/tavor
    mkdir -p $home/da $home/load
    head -c 1025 /dev/urandom >$home/da/qx7710_da.bin
    head -c 28673 /dev/urandom >$home/load/first.bin
    head -c 32768 /dev/urandom >$home/load/second.bin
    for image in first:0x08000000 second:0x08008000; do
        printf -- '- rom:\n    file: %s.bin\n    name: %s\n    begin_address: %s\n' ${image%:*} ${image%:*} ${image#*:}
    done >$home/load/flash_download.cfg
}

# The flash of 131072 bytes holds the images where the list says, and nothing else.
firmware_expect() {
    local home=/etc/default/tavor/load
    tr '\000' '\377' </dev/zero | head -c 131072 >/tmp/flash
    dd if=$home/first.bin of=/tmp/flash conv=notrunc 2>/dev/null
    dd if=$home/second.bin of=/tmp/flash conv=notrunc bs=32768 seek=1 2>/dev/null
    cmp /tmp/flash /board/flash.bin || fail "the flash holds something else than the images"
    expect bootable "$(cat /board/flash.state)" "state of the flash"
}

# After each check, whatever it has left: nothing of it reaches the next.
if [ "${1:-}" = clean ]; then
    killall -9 tavor tavor-i2c tavor-board tavorctl kernel-probe
    for line in $(cd /sys/class/gpio && ls -d gpio[0-9]*); do
        echo "${line#gpio}" >/sys/class/gpio/unexport # it holds the module
    done
    wait_for 10 rmmod tavor_board # not before the last of them has ended
    ipcrm -Q 1234 -Q 1235
    rm -rf /board /tmp/*
    exit 0
fi
