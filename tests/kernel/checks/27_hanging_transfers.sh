# Each transfer hangs 400 ms in the driver: a stop waits for those under way and is answered.
. /lib.sh

board_start
daemon_start
ctl position >/dev/null
echo 400 >/sys/module/tavor_board/parameters/answer_delay_ms
sleep 2
ctl stop --timeout 30
expect 0 "$(cat /sys/class/gpio/gpio17/value)" "power line after the stop"
echo 0 >/sys/module/tavor_board/parameters/answer_delay_ms
ctl position >/dev/null
