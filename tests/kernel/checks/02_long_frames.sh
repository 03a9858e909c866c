# 60000 bytes wait in the chip: they come in frames of 4095 bytes, a transfer of 4096 each, and none is lost.
. /lib.sh

board_start --source none
daemon_start
ctl start
board fault backlog 60000
wait_for 60 logged "Master want to receive:4095"
delivered() { [ "$(status bytes_delivered)" -ge 60000 ]; }
wait_for 60 delivered
expect 0 "$(status violations)" "violations of the protocol"
expect 0 "$(status transfers_failed)" "failed transfers"
[ "$(grep -c 'Master want to receive:4095' /tmp/daemon.log)" -ge 14 ] || fail "too few frames of 4095 bytes"
ctl stop
