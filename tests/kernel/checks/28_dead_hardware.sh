# Whoever plays the hardware dies: transfers fail with EIO, a stop is answered, and with new hardware a start is enough.
. /lib.sh

board_start
daemon_start
ctl position >/dev/null
kill -9 $board_pid
wait $board_pid || true
wait_for 30 logged "[LOCSERV] ERR: [spi]can't send spi message"
ctl stop
board_start
ctl position >/dev/null
