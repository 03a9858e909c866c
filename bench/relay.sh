#!/usr/bin/env bash
# Builds what a device ships and shows what the relay costs beside gpsd, with 1, 10, 100 and 1,000 consumers: some twelve minutes.
# The costs end with the table of docs/relay.md and the load of the machine. Options go to the program:
# bench/relay.sh --seconds 3 --rounds 1 --consumers 10 --kinds nmea --parts cost. It takes gpsd.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
[ -x /usr/sbin/gpsd ] || {
    echo "relay.sh: gpsd is missing" >&2
    exit 1
}
cmake --preset release >/dev/null
cmake --build --preset release --target relay_bench >/dev/null
exec build/release/bin/relay_bench "$@"
