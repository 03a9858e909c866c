# The device is unbound from spidev while the daemon positions, and bound again: positions come back.
. /lib.sh

driver=/sys/bus/spi/drivers/spidev
board_start
daemon_start
ctl position >/dev/null
echo spi1.0 >$driver/unbind
wait_for 30 logged "[LOCSERV] ERR: [spi]can't send spi message"
[ ! -e /dev/spidev1.0 ] || fail "the node is still there"
echo spi1.0 >$driver/bind
wait_for 5 test -c /dev/spidev1.0
! timeout 10 tavorctl --socket $socket position >/dev/null 2>&1 || fail "positions come back by themselves: tell so in the docs"
ctl stop
ctl position >/dev/null # stop and start take the new node
