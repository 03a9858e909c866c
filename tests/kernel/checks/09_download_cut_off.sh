# The daemon is killed while it writes; a new one writes the images from the start.
. /lib.sh

board_start --flash-size 131072
firmware_make
daemon_start
ctl download --log /tmp/daemon.log >/dev/null 2>&1 &
writing() { [ "$(status blocks_written)" -ge 2 ]; }
wait_for 120 writing
kill -9 $daemon_pid
wait $daemon_pid || true
rm -f $socket
expect false "$(status bootable)" "whether the flash of half a download is bootable"

daemon_start
ctl download --log /tmp/daemon.log
firmware_expect
