# A line that can't be an input has no "direction" in sysfs.
. /lib.sh

module_load gpio_output_only=1
board_start
daemon_start
! ctl start || fail "start was answered with success"
wait_for 10 logged "[LOCSERV] ERR: [GPIO]location_gpio_config open fail: direction"
ctl stop || echo "stop was answered with failure"
