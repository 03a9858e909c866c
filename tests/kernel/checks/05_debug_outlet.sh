# The debug outlet mirrors the chip to a file and to a TCP client, and what the client types goes to the chip.
. /lib.sh

board_start
daemon_start
ctl start
ctl debug file
wait_for 30 grep -q '^\$GNRMC' /etc/default/tavor/log.dat

ctl debug tcp
(sleep 5; printf '$PZUL353,1,1*26\r\n'; sleep 5) | nc 127.0.0.1 7005 >/tmp/tcp &
wait_for 30 grep -q '^\$GNRMC' /tmp/tcp
wait_for 30 grep -q '^\$PZUL001,353,0' /tmp/tcp
ctl debug off
ctl stop
