#!/usr/bin/env bash
# Holds docs/troubleshooting.md against the source: each line at error level stands there, and none that there is not.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
page=docs/troubleshooting.md

mapfile -t lines < <(grep -rhoE '"\[LOCSERV\] ERR: [^"]*' src --include='*.cpp' |
    sed 's/^"\[LOCSERV\] ERR: //; s/\\n$//; s/^\[GPIO\]%s$/[GPIO]WORD/' | sort -u)
# The first column of the last part; "..." is anything.
mapfile -t entries < <(sed '1,/^## Lines at error level/d' "$page" | sed -n 's/^| \(`[^|]*`\) |.*/\1/p' |
    grep -oE '`[^`]+`' | tr -d '`')
mapfile -t patterns < <(printf '%s\n' "${entries[@]}" | sed 's/[][\*?]/\\&/g; s/\.\.\./*/g')
status=0
for line in "${lines[@]}"; do
    for pattern in "${patterns[@]}"; do
        # shellcheck disable=SC2053  # it is a pattern
        [[ $line == $pattern ]] && continue 2
    done
    echo "check: $page does not tell about: $line" >&2
    status=1
done
for i in "${!patterns[@]}"; do
    for line in "${lines[@]}"; do
        # shellcheck disable=SC2053
        [[ $line == ${patterns[i]} ]] && continue 2
    done
    echo "check: no line of the source is: ${entries[i]}" >&2
    status=1
done
exit $status
