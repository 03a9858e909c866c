# The hardware answers nothing any more: each transfer fails at the driver's limit, a stop is answered, and positions come again once it
# answers.
. /lib.sh

board_start
daemon_start
ctl position >/dev/null
echo 300 >/sys/module/tavor_board/parameters/answer_limit_ms
kill -STOP $board_pid
wait_for 30 logged "[LOCSERV] ERR: [spi]can't send spi message"
ctl stop --timeout 30
kill -CONT $board_pid
echo 10000 >/sys/module/tavor_board/parameters/answer_limit_ms
ctl position >/dev/null
