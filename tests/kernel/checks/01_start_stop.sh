# A start powers the chip by its line, sentences and positions come, a stop powers it off.
. /lib.sh

line=/sys/class/gpio/gpio17
board_start
daemon_start
[ ! -e $line ] || fail "the line is exported before the first start"

ctl watch --count 40 >/tmp/watch &
watch=$!
wait_for 60 grep -q '^position: ' /tmp/watch
grep -q '^daemon: TAVOR Version:' /tmp/watch || fail "no banner"
grep -q '^\$GNRMC,' /tmp/watch || fail "no sentence"
expect out "$(cat $line/direction)" direction
expect 1 "$(cat $line/value)" "power line after the start"
expect on "$(board power | awk '{print $NF}')" "the chip's power after the start"
wait $watch

ctl stop
expect 0 "$(cat $line/value)" "power line after the stop"
