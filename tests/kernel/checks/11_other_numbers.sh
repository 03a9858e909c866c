# Another bus, chip select, I2C bus and first line than the default.
. /lib.sh

module_load spi_bus=3 spi_cs=2 i2c_bus=5 gpio_base=64
board_start --power-gpio 81 --conf "SPI port path=/dev/spidev3.2"
daemon_start
ctl position >/dev/null
expect 1 "$(cat /sys/class/gpio/gpio81/value)" "power line after the start"
ctl stop
expect 0 "$(cat /sys/class/gpio/gpio81/value)" "power line after the stop"
[ -c /dev/i2c-5 ] || fail "the I2C bus has another number"
