#!/usr/bin/env bash
# Holds docs/tavor-protocol.7 against include/tavor/protocol.h and the examples: each number, size, offset and example stands in it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
page=docs/tavor-protocol.7
header=include/tavor/protocol.h
status=0
tab=$'\t'

missing() {
    echo "check: $page lacks $*" >&2
    status=1
}

# Types and codes: NAME = VALUE in the header.
while read -r name value; do
    grep -qx "\.B $value $name" "$page" || missing "$value $name"
done < <(sed -n 's/^ *\(TAVOR_[A-Z_]*\) = \([0-9]*\).*/\1 \2/p' "$header")
# Sizes.
while read -r name value; do
    grep -q "^$name $value$tab" "$page" || missing "$name $value"
done < <(sed -n 's/^#define \(TAVOR_[A-Z_]*\) \([0-9]*\)$/\1 \2/p' "$header")
# The record: offset, bytes and name of each field.
offset=0
while read -r name bytes; do
    grep -q "^$offset$tab$bytes$tab$name$tab" "$page" || missing "$name at $offset, $bytes bytes"
    offset=$((offset + bytes))
done < <(sed -n '/^struct tavor_location_record/,/^}/s/^ *char \([A-Za-z]*\)\[\([0-9]*\)\];.*/\1 \2/p' "$header")
[ $offset -eq 94 ] || missing "a record of $offset bytes"
# The examples, letter by letter.
examples=$(sed -n '/^\.EX$/,/^\.EE$/{/^\.E[XE]$/d;s/^\\&//;s/\\-/-/g;s/\\e/\\/g;p}' "$page")
[ "$examples" = "$(cat docs/examples/client.c docs/examples/client.py)" ] || missing "the examples as they stand in docs/examples"
exit $status
