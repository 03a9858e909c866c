# The power line belongs to a driver: the export is refused, start says so, a stop is answered.
. /lib.sh

module_load gpio_busy=17
board_start
! tavorctl check >/tmp/check.out || fail "check finds nothing"
grep -q "^bad  *power line: line 17 is in use: a driver has it" /tmp/check.out || fail "$(cat /tmp/check.out)"
daemon_start
! ctl start || fail "start was answered with success"
wait_for 10 logged "[LOCSERV] ERR: [GPIO]location_gpio_export write fail: export"
ctl stop # a success: the chip may be on for all the daemon knows, the log says so
expect 2 "$(grep -c 'location_gpio_export write fail: export' /tmp/daemon.log)" "exports that failed"
