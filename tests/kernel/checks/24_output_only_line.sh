# A line that can't be an input has no "direction" in sysfs.
. /lib.sh

module_load gpio_output_only=1
board_start
! tavorctl check >/tmp/check.out || fail "check finds nothing"
grep -q "^bad  *power line: line 17 can only be an output" /tmp/check.out || fail "$(cat /tmp/check.out)"
daemon_start
! ctl start || fail "start was answered with success"
wait_for 10 logged "[LOCSERV] ERR: [GPIO]location_gpio_config open fail: direction"
ctl stop || echo "stop was answered with failure"
