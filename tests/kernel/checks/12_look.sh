# "tavorctl check" before the first start finds nothing bad and gives back what it tried; with a daemon it leaves the devices alone.
# "tavorctl status" tells what goes on.
. /lib.sh

board_start
tavorctl check >/tmp/check.out || fail "check ended with $?: $(cat /tmp/check.out)"
for text in "SPI device: /dev/spidev" "SPI message: spidev takes" "power line: line 17 can be switched" "daemon: none runs"; do
    grep -q "^good  *$text" /tmp/check.out || fail "check does not say \"$text\": $(cat /tmp/check.out)"
done
[ ! -e /sys/class/gpio/gpio17 ] || fail "check has kept the line"

daemon_start
ctl position >/dev/null
! ctl check >/tmp/check.out || fail "check has no doubt beside a daemon"
grep -q "^skipped  *SPI device" /tmp/check.out || fail "check tried the device of a daemon: $(cat /tmp/check.out)"
ctl status --log /tmp/daemon.log >/tmp/status.out || fail "status ended with $?: $(cat /tmp/status.out)"
for text in "daemon        running, version " "positioning   on" "chip power    on (line 17)" "chip          talks"; do
    grep -qF "$text" /tmp/status.out || fail "status does not say \"$text\": $(cat /tmp/status.out)"
done
ctl position >/dev/null
ctl stop
ctl status --log /tmp/daemon.log | grep -qF "chip power    off (line 17)" || fail "status after the stop"
