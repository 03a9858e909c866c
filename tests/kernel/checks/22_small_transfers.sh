# A controller takes 2048 bytes at most: short frames pass, a long one fails and is told, and a stop is answered.
. /lib.sh

module_load spi_max_transfer=2048
board_start
daemon_start
ctl position >/dev/null
! logged "can't send spi message" || fail "a short frame has failed"
board fault backlog 20000
wait_for 30 logged "[LOCSERV] ERR: [spi]can't send spi message"
ctl stop
expect 0 "$(cat /sys/class/gpio/gpio17/value)" "power line after the stop"
