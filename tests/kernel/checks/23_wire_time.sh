# At 1 MHz each transfer takes its time on the wire: positions come all the same.
. /lib.sh

module_load spi_wire_time=1
board_start --conf "SPI frequency=1000000"
daemon_start
ctl watch --count 60 | grep -q '^position: ' || fail "no position"
expect 0 "$(status violations)" "violations of the protocol"
ctl stop
