# Two images are written; the board's flash holds them, byte by byte.
. /lib.sh

board_start --flash-size 131072
firmware_make
daemon_start
ctl download --log /tmp/daemon.log
firmware_expect
ctl position >/dev/null # the new firmware runs
