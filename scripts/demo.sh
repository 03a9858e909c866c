#!/usr/bin/env bash
# Sets up, builds and runs the whole system on the simulated board: cold start against assisted start, live positions, a command
# and its answer, save, the location file, stop. Ends by itself and leaves nothing behind.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() {
    cat <<EOF
usage: scripts/demo.sh [--keep] [--relay]
  --keep   leave board and daemon running and print how to talk to them
  --relay  show the relay with several clients too; with gpsd's clients where they are installed
EOF
}

keep=no
with_relay=no
for argument in "$@"; do
    case "$argument" in
    --keep) keep=yes ;;
    --relay) with_relay=yes ;;
    -h | --help)
        usage
        exit 0
        ;;
    *)
        usage >&2
        exit 2
        ;;
    esac
done

scripts/setup.sh
echo "demo: building"
cmake --preset release -DTAVOR_BUILD_TESTS=OFF -DTAVOR_BUILD_BENCH=OFF -B build/demo >/dev/null
cmake --build build/demo >build/demo/build.log 2>&1 || {
    cat build/demo/build.log >&2
    exit 1
}
bin=$PWD/build/demo/bin

dir=$(mktemp -d "${TMPDIR:-/tmp}/tavor-demo-XXXXXX")
board_pid=
daemon_pid=
relay_pid=

finish() {
    for pid in "$relay_pid" "$daemon_pid" "$board_pid"; do
        if [ -n "$pid" ]; then
            kill "$pid" 2>/dev/null || true
            wait "$pid" 2>/dev/null || true
        fi
    done
    rm -rf "$dir"
}
trap finish EXIT
trap 'exit 130' INT TERM

# wait_for SECONDS COMMAND...: until the command succeeds.
wait_for() {
    local limit=$((SECONDS + $1))
    shift
    until "$@" >/dev/null 2>&1; do
        [ $SECONDS -lt $limit ] || {
            echo "demo: gave up waiting for: $*" >&2
            exit 1
        }
        sleep 0.05
    done
}

say() { printf '\n\033[1m# %s\033[0m\n' "$*"; }

# show COMMAND...: prints it as a person would type it, then runs it.
show() {
    local name=${1##*/}
    shift
    printf '$ %s%s\n' "$name" "$(printf ' %s' "$@" | sed "s| --socket $socket||; s| --dir $dir||")"
    "$bin/$name" "$@"
}

# first_fix: waits for the first fix after the power-up and prints its milliseconds.
first_fix() {
    wait_for 30 has_fix
    "$bin/tavor-board" ctl --dir "$dir" status --json | sed -n 's/.*"first_fix_ms":\([0-9]*\).*/\1/p'
}

has_fix() { "$bin/tavor-board" ctl --dir "$dir" status --json | grep -q '"first_fix_ms":[0-9]'; }

# Whether all four constellations came through.
all_good() { [ "$("$bin/tavor-board" ctl --dir "$dir" status --json | grep -o '"aiding_orbits":{.*"aiding_position"' | grep -o '"verdict":"good"' | wc -l)" = 4 ]; }

free_port() {
    local port
    for port in $(seq 7005 7099); do
        (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || {
            echo "$port"
            return
        }
    done
    echo "demo: no free TCP port from 7005 to 7099" >&2
    exit 1
}

socket=$dir/etc/default/tavor/tavor_sun_path
port=$(free_port)

# The board's clock runs four times as fast as the host's: half a minute is over soon.
"$bin/tavor-board" run --dir "$dir" --rate 5 --speed 4 --aiding --first-fix 30000 --assisted-fix 5000 --conf "debug socket ip=127.0.0.1" --conf "debug socket port=$port" \
    >"$dir/board.log" 2>&1 &
board_pid=$!
wait_for 10 grep -q '^ready ' "$dir/board.log"
"$bin/tavor-board" exec --dir "$dir" -- "$bin/tavor" >"$dir/daemon.log" 2>&1 &
daemon_pid=$!
wait_for 10 test -S "$socket"

say "A simulated board and the daemon run in a private directory. A cold start: the chip knows nothing and asks in vain."
show tavorctl start --socket "$socket"
cold=$(first_fix)
echo "first fix after $cold ms of the board's time, which runs four times as fast as ours"
show tavorctl stop --socket "$socket"

say "The daemon fetches predicted orbits from the board's assistance server, one file after the other."
show tavorctl assist --once --wait 3 --socket "$socket"
(cd "$dir/etc/default/tavor/xod" && ls -l | awk 'NR > 1 {print "    " $NF ", " $5 " bytes"}')

say "An assisted start: the chip asks for time and orbits again, and checks every word of every record."
show tavorctl start --socket "$socket"
assisted=$(first_fix)
echo "first fix after $assisted ms; $cold ms without assistance"
wait_for 20 all_good
"$bin/tavor-board" ctl --dir "$dir" status | grep '^aiding_orbits'

say "A client follows."
show tavorctl watch --socket "$socket" --count 25

say "The next position, for people and for programs."
show tavorctl position --socket "$socket"
show tavorctl position --json --socket "$socket"

say "A command to the chip and its answer."
show tavorctl send --wait 1 --socket "$socket" 353,1,1
show tavor-board ctl --dir "$dir" commands | sed -n '1p;$p' # the orbit data before it is long

say "The debug outlet mirrors the chip to TCP clients: port $port, while the daemon's client goes on."
show tavorctl debug tcp --socket "$socket"
exec 3<>"/dev/tcp/127.0.0.1/$port"
for _ in 1 2 3; do
    IFS= read -r -t 5 line <&3
    printf 'tcp %s: %s\n' "$port" "${line%$'\r'}"
done
exec 3>&-
show tavorctl position --socket "$socket"

say "Save the location."
show tavorctl save --socket "$socket"
cat "$dir/etc/default/tavor/location.dat"

# A screen program's last picture as plain lines.
picture() {
    TERM=vt100 timeout 6 script -qec "stty cols 90 rows 30; $*" /dev/null </dev/null |
        sed 's/\x1b[^a-zA-Z]*[a-zA-Z]/\n/g; s/[\x00-\x08\x0e-\x1f]//g' | grep -E '[[:alnum:]]' | tail -n 30
}

show_relay() {
    local place
    place=127.0.0.1:$(free_port)
    say "A relay is the daemon's only client now, and serves many."
    "$bin/tavor-relay" --daemon "$socket" --socket "$dir/relay.sock" --listen "$place" >"$dir/relay.log" 2>&1 &
    relay_pid=$!
    wait_for 10 grep -q 'daemon is there' "$dir/relay.log"
    for _ in 1 2 3; do
        "$bin/tavorctl" --socket "$dir/relay.sock" watch --count 40 >/dev/null &
    done
    echo '$ tavorctl position    # while three others watch'
    "$bin/tavorctl" --socket "$dir/relay.sock" position
    wait %?watch 2>/dev/null || true
    if command -v gpspipe >/dev/null; then
        echo '$ gpspipe -w -n 5'
        gpspipe -w -n 5 "$place" | cut -c 1-160
    fi
    if command -v cgps >/dev/null && command -v script >/dev/null; then
        echo '$ cgps'
        picture cgps -s "$place" || true
    fi
    kill "$relay_pid"
    wait "$relay_pid" || true
    relay_pid=
}

if [ "$with_relay" = yes ]; then
    show_relay
fi

if [ "$keep" = yes ]; then
    trap - EXIT INT TERM
    cat <<EOF

Board (pid $board_pid) and daemon (pid $daemon_pid) go on in $dir; the debug outlet listens on 127.0.0.1:$port.
  $bin/tavorctl --socket $socket watch
  $bin/tavor-board ctl --dir $dir status
  $bin/tavor-board ctl --dir $dir fault --list
  kill $daemon_pid $board_pid; rm -r $dir     ends it
EOF
    exit 0
fi

say "Stop: the chip is powered off."
show tavorctl stop --socket "$socket"
show tavor-board ctl --dir "$dir" power
echo
echo "demo: done"
