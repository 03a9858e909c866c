# A controller that has nothing but bit order is enough for the default settings.
. /lib.sh

module_load spi_mode_bits=0x08
board_start
daemon_start
ctl position >/dev/null
ctl stop
