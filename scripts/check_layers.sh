#!/usr/bin/env bash
# Checks that no source includes a header of a library above its own, in the order of docs/architecture.md ("Rooms"), and that
# the programs and the board keep apart: each library of src/ may use what it names in src/CMakeLists.txt, and what that names.
set -euo pipefail
cd "${1:-$(dirname "${BASH_SOURCE[0]}")/..}"

found=$(mktemp)
trap 'rm -f "$found"' EXIT

# "FILE:LINE:HEADER" of each quoted include below the directories.
includes() { grep -rnoE --include='*.h' --include='*.cpp' --include='*.c' '^[[:space:]]*#[[:space:]]*include[[:space:]]+"[^"]+"' "$@" |
    sed -E 's/^([^:]+:[0-9]+):.*"([^"]+)"$/\1:\2/'; }

# Libraries and what they use out of the CMake file, then every include against that. A header is of the library that names
# it or the source beside it; else it is its room's own, but for src/base, which is for all.
{
    sed 's/#.*//' src/CMakeLists.txt | tr '()\n' '   ' | tr -s ' ' '\n' | sed 's/^/cmake /'
    includes src | sed 's/^/include /'
} | awk '
    $1 == "cmake" && ($2 == "tavor_library" || $2 ~ /^(target_|find_|add_|set$|install|set_)/) { lib = ""; part = ""; open = $2 == "tavor_library"; next }
    $1 == "cmake" && open && lib == "" { lib = $2; known[lib] = 1; next }
    $1 == "cmake" && open && ($2 == "SOURCES" || $2 == "USES") { part = $2; next }
    $1 == "cmake" && open && part == "SOURCES" { name = $2; sub(/\.(cpp|h)$/, "", name); of[name] = lib; next }
    $1 == "cmake" && open && part == "USES" { uses[lib, $2] = 1; next }
    $1 == "include" {
        if (!closed) { close_uses(); closed = 1 }
        split(substr($0, 9), at, ":")
        from = at[1]; sub(/^src\//, "", from); sub(/\.[a-z]+$/, "", from)
        to = at[3]; sub(/\.h$/, "", to)
        if (to == "tavor/protocol" || room(to) == "base") next
        if ((from in of) && (to in of)) bad = of[from] != of[to] && !((of[from], of[to]) in uses)
        else bad = from != "main" && room(from) != room(to)
        if (bad) print at[1] ":" at[2] ": " owner(from) " may not use " at[3] " of " owner(to)
    }
    function room(name) { return name ~ /\// ? substr(name, 1, index(name, "/") - 1) : "" }
    function owner(name) { return (name in of) ? of[name] : "\"" room(name) "\"" }
    function close_uses(   a, b, c) {
        for (b in known) for (a in known) for (c in known)
            if (((a, b) in uses) && ((b, c) in uses)) uses[a, c] = 1
    }' >"$found"

# refuse WHO PATTERN WHY: no source of WHO includes a header that matches.
refuse() { includes "$1" | grep -E "^[^:]+:[0-9]+:(\.\./)*($2)/" | sed "s|\$|: $3|" >>"$found" || true; }
rooms=$(find src -mindepth 1 -maxdepth 1 -type d -printf '%f|')
refuse src 'client|board|tests|bench' 'src/ is complete without client/, board/ and tests/'
refuse client "board|tests|bench|src|${rooms%|}" 'client/ shares only the protocol with the daemon'
refuse board "client|tests|bench|src|${rooms%|}" 'board/ knows nothing of the daemon'

if [ -s "$found" ]; then
    cat "$found" >&2
    exit 1
fi
