# A command goes to the chip and its answer comes back.
. /lib.sh

board_start
daemon_start
ctl start
expect '$PZUL001,353,0*27' "$(ctl send 353,1,1 | grep PZUL001)" "the chip's answer"
board commands | grep -q 353,1,1 || fail "the chip has not seen the command: $(board commands)"
expect 0 "$(status commands_bad)" "commands with an error"
