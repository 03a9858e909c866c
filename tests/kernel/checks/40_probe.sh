# The same system calls on the kernel's devices and on the simulated ones give the same answers, but for the differences that
# /probe/accepted lists.
. /lib.sh

board_start --source none
kernel-probe >/tmp/kernel
kill $board_pid
wait $board_pid || true
[ "$(wc -l </tmp/kernel)" -ge 500 ] || fail "the probe has ended early: $(tail -n 1 /tmp/kernel)"
tavor-board run --dir /tmp/simulated --source none -- kernel-probe >/tmp/board 2>/dev/null

diff /tmp/kernel /tmp/board | sed -n 's/^< /kernel: /p; s/^> /board:  /p' >/tmp/differences || true
grep -v '^#' /probe/accepted >/tmp/accepted || true
if ! diff /tmp/accepted /tmp/differences >/tmp/verdict; then
    sed -n 's/^> /not accepted: /p; s/^< /accepted, but no difference any more: /p' /tmp/verdict
    fail "the simulation answers otherwise than the kernel"
fi
echo "$(wc -l </tmp/kernel) calls, $(grep -c '^kernel: ' /tmp/differences) differ as accepted"
