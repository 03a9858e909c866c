# The daemon with its chip on I2C, on the kernel's i2c-dev.
. /lib.sh

board_start --conf "SPI port path=/dev/i2c-1"
daemon_start tavor-i2c
ctl watch --count 40 >/tmp/watch &
watch=$!
wait_for 60 grep -q '^position: ' /tmp/watch
expect '$PZUL001,353,0*27' "$(ctl send 353,1,1 | grep PZUL001)" "the chip's answer"
kill $watch
expect 0 "$(status violations)" "violations of the protocol"
ctl stop
expect 0 "$(cat /sys/class/gpio/gpio17/value)" "power line after the stop"
