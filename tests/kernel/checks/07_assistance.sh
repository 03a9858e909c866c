# Orbit data come from the board's server, and the chip finds every record of them good.
. /lib.sh

board_start --aiding
daemon_start
ctl assist --once
ctl start
all_good() { [ "$(board status --json | grep -o '"aiding_orbits":{.*"aiding_position"' | grep -o '"verdict":"good"' | wc -l)" = 4 ]; }
wait_for 120 all_good
expect 0 "$(status orbits_stray)" "stray orbit data"
ctl stop
