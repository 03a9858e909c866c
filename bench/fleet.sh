#!/usr/bin/env bash
# A fleet at one MQTT broker on this machine: what it costs.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

case "${1:-}" in
-h | --help)
    cat <<EOT
usage: bench/fleet.sh [DEVICES [SECONDS]]
  1,000 devices by default, each with the relay's own output to MQTT, in one process; each publishes a position
  a second, for 20 seconds. Takes Debian's package mosquitto, whose broker is started with a configuration of its
  own and ended again.
EOT
    exit 0
    ;;
esac
devices=${1:-1000}
seconds=${2:-20}

PATH=$PATH:/usr/sbin
command -v mosquitto >/dev/null || {
    echo "fleet: mosquitto is missing" >&2
    exit 77
}
scripts/setup.sh >/dev/null
build=build/release
cmake --preset release >/dev/null
cmake --build --preset release --target fleet_bench >/dev/null

dir=$(mktemp -d "${TMPDIR:-/tmp}/tavor-fleet-XXXXXX")
broker=
trap '[ -z "$broker" ] || kill "$broker"; rm -rf "$dir"' EXIT
port=$((20000 + RANDOM % 10000))
printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\nuser %s\n' "$port" "$(id -un)" >"$dir/broker.conf"
ulimit -n "$(ulimit -H -n)"
mosquitto -c "$dir/broker.conf" >"$dir/broker.log" 2>&1 &
broker=$!
for _ in $(seq 100); do
    ! grep -q ' running$' "$dir/broker.log" || break
    sleep 0.05
done
grep -q ' running$' "$dir/broker.log" || {
    cat "$dir/broker.log" >&2
    exit 1
}
"$build/bin/fleet_bench" "$devices" "$port" "$broker" "$seconds" | grep -v '^tavor-relay: '
