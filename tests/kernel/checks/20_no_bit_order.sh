# A controller without LSB_FIRST refuses the default settings; with "SPI bit order=1" all is well.
. /lib.sh

module_load spi_mode_bits=0x07
board_start --msb-first
! tavorctl check >/tmp/check.out || fail "check finds nothing"
grep -q "^bad  *SPI device: refuses least significant bit first.*'SPI bit order=1'" /tmp/check.out || fail "$(cat /tmp/check.out)"
daemon_start
ctl start # answered with success: the bus is opened after it
wait_for 20 logged "[LOCSERV] ERR: [spi]can't set LSB or MSB: 1"
logged '[spi]the controller has no such bit order: try "SPI bit order=1" in tavor.conf' || fail "the log names no remedy"
ctl stop
expect 0 "$(cat /sys/class/gpio/gpio17/value)" "power line after the stop"
daemon_end

echo "SPI bit order=1" >>/etc/default/tavor/tavor.conf
daemon_start
ctl position >/dev/null
ctl stop
