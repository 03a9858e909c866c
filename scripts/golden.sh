#!/usr/bin/env bash
# Golden replays: what a client gets while the chip plays the logs of tests/system/replay, against what is recorded there.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() {
    cat <<EOT
usage: scripts/golden.sh --show|--rebuild [LOG...]
  --show      show the difference between the golden files and what comes now; ends with 1 when there is one
  --rebuild   write what comes now into the golden files
  LOG         name of a log without .nmea; default: all
EOT
}

mode=${1:-}
case "$mode" in
--show | --rebuild) shift ;;
-h | --help)
    usage
    exit 0
    ;;
*)
    usage >&2
    exit 2
    ;;
esac

logs=tests/system/replay
if [ $# -eq 0 ]; then
    for log in "$logs"/*.nmea; do
        set -- "$@" "$(basename "$log" .nmea)"
    done
fi

now=$(mktemp -d "${TMPDIR:-/tmp}/tavor-golden-XXXXXX")
trap 'rm -rf "$now"' EXIT

scripts/setup.sh >/dev/null
cmake --preset dev >/dev/null
cmake --build --preset dev --target tavor-golden >"$now/build.log" 2>&1 || {
    cat "$now/build.log" >&2
    exit 1
}

# All replays come first: one that fails leaves every golden file as it is.
for name in "$@"; do
    build/dev/bin/tavor-golden "$logs/$name.nmea" >"$now/$name.golden"
done

differ=0
for name in "$@"; do
    golden=$logs/$name.golden
    known=$golden
    [ -e "$golden" ] || known=/dev/null
    if diff -u --label "$golden" --label "$name now" "$known" "$now/$name.golden"; then
        echo "golden: $name is the same"
    elif [ "$mode" = --rebuild ]; then
        cp "$now/$name.golden" "$golden"
        echo "golden: $golden is rebuilt"
    else
        differ=1
    fi
done
exit $differ
