#!/usr/bin/env bash
# Checks format, layers and lint of all sources. With --fix the format is put right instead.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# The kernel module keeps the kernel's style.
mapfile -t sources < <(find include process src sentence endpoint client relay board tests bench -path board/kernel -prune -o \( -name '*.h' -o -name '*.cpp' -o -name '*.c' \) -print | sort)

if [ "${1:-}" = "--fix" ]; then
    clang-format -i "${sources[@]}"
    exit 0
fi

echo "check: format of ${#sources[@]} files"
clang-format --dry-run --Werror "${sources[@]}"

echo "check: conflicts"
if grep -rnE '^(<{7}|>{7}) ' --exclude-dir=build --exclude-dir=.git .; then
    echo "check: a merge was left in the middle" >&2
    exit 1
fi

echo "check: layers"
# A source includes no layer that comes after its own in the CMakeLists.txt of src/ or board/. The programs and the board share
# only the protocol: src/ is no include folder of theirs.
check_layers() { # folder, function that makes a layer
    local above=main layer
    for layer in $(sed -n "s/^$2(\([a-z]*\) .*/\1/p" "$1/CMakeLists.txt" | tac); do
        if grep -rnE "^#include \"($above)/" "$1/$layer"; then
            echo "check: $1/$layer may not include what stands above it" >&2
            exit 1
        fi
        above="$above|$layer"
    done
}
layers=$(sed -n 's/^tavor_layer(\([a-z]*\) .*/\1/p' src/CMakeLists.txt)
if [ "$layers" != "$(sed -n 's/^| `src\/\([a-z]*\)` |.*/\1/p' docs/architecture.md)" ] ||
    [ "$(sort <<<"$layers")" != "$(find src -mindepth 1 -maxdepth 1 -type d -printf '%f\n' | sort)" ]; then
    echo "check: src/, src/CMakeLists.txt and docs/architecture.md show different maps" >&2
    exit 1
fi
check_layers src tavor_layer
check_layers board board_layer
check_layers relay relay_layer
# process/ stands below all programs, sentence/ and endpoint/ below the client and the relay; they include only themselves.
if grep -rnE '^#include "(src|tests|bench)/' src client relay board || grep -rnE '^#include "(board|client|relay)/' src relay ||
    grep -rnE '^#include "(board|relay)/' client || grep -rnE '^#include "(sentence|endpoint)/' src board ||
    grep -rn '^#include "' sentence | grep -v '#include "sentence/' ||
    grep -rn '^#include "' endpoint | grep -v '#include "endpoint/' ||
    grep -rn '^#include "' process | grep -v '#include "process/'; then
    echo "check: only include/ and process/ are shared between the programs, sentence/ and endpoint/ between client and relay" >&2
    exit 1
fi

echo "check: manuals and error lines"
scripts/lib/check_error_lines.sh
scripts/lib/check_protocol.sh
version=$(sed -n 's/^project(tavor VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
for page in docs/*.[1-8]; do
    if ! head -n 1 "$page" | grep -q "^\.TH .* \"tavor $version\" "; then
        echo "check: $page is not of version $version" >&2
        exit 1
    fi
    mandoc -Tlint "$page"
done
if command -v systemd-analyze >/dev/null; then
    mkdir -p build
    echo "check: exposure of the services"
    # At most, in tenths of 10.
    for limit in tavor:25 tavor-relay:15; do
        systemd-analyze security --offline=true --threshold="${limit#*:}" "packaging/${limit%:*}.service" >build/exposure 2>&1 || {
            cat build/exposure >&2
            exit 1
        }
    done
fi
echo "check: lint"
# One file per run: after another file the analyzer takes every va_list for uninitialized.
# A tree of its own without tests: their precompiled headers are the compiler's, not the linter's.
build=build/lint
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
    -DTAVOR_BUILD_TESTS=OFF -DTAVOR_BUILD_BENCH=OFF >/dev/null
printf '%s\n' "${sources[@]}" | grep -E '^(process|src|sentence|endpoint|client|relay|board)/.*\.cpp$' |
    xargs -P "$(nproc)" -n 1 clang-tidy --quiet -p "$build" 2>&1 |
    { grep -vE '^[0-9]+ warnings? generated|^Suppressed |^Use -header-filter' || true; }
echo "check: clean"
