# An address of the chip belongs to a driver: nothing is sent to another address instead.
. /lib.sh

module_load i2c_busy=0x54
board_start --conf "SPI port path=/dev/i2c-1"
daemon_start tavor-i2c
ctl start
wait_for 30 logged "step 1-b:###### too many ERROR counter 6"
expect 0 "$(status violations)" "violations of the protocol"
ctl stop
