# Each transfer hangs 8 s in the driver: a stop waits for those under way, and is answered within tavorctl's own limit.
. /lib.sh

board_start
daemon_start
ctl position >/dev/null
echo 8000 >/sys/module/tavor_board/parameters/answer_delay_ms
sleep 2
ctl stop
expect 0 "$(cat /sys/class/gpio/gpio17/value)" "power line after the stop"
echo 0 >/sys/module/tavor_board/parameters/answer_delay_ms
ctl position >/dev/null
