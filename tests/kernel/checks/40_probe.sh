# The same system calls on the kernel's devices and on the simulated ones give the same answers, but for the differences that
# /probe/accepted lists.
. /lib.sh

board_start --source none
kernel-probe >/tmp/kernel
kill $board_pid
wait $board_pid || true
[ "$(wc -l </tmp/kernel)" -ge 500 ] || fail "the probe has ended early: $(tail -n 1 /tmp/kernel)"
tavor-board run --dir /tmp/simulated --source none -- kernel-probe >/tmp/board 2>/dev/null

awk 'NR == FNR { kernel[NR] = $0; next }
    kernel[FNR] != $0 { print "kernel: " kernel[FNR]; print "board:  " $0 }' /tmp/kernel /tmp/board >/tmp/differences
grep -v '^#' /probe/accepted >/tmp/accepted
grep -vxF -f /tmp/accepted /tmp/differences && fail "these differences are not accepted"
grep -vxF -f /tmp/differences /tmp/accepted && fail "these are accepted and no differences any more"
echo "$(wc -l </tmp/kernel) calls, $(grep -c '^kernel: ' /tmp/differences) differ as accepted"
