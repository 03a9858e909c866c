#!/usr/bin/env bash
# Sets up, builds and runs everything that must hold: format, lint, and all tests plainly and under AddressSanitizer with
# UndefinedBehaviorSanitizer; and that what a device ships builds without a warning. With --tsan also under ThreadSanitizer,
# with --quick only the plain tests.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() {
    cat <<EOF
usage: scripts/test.sh [--quick|--tsan]
  --quick   build and run the plain tests only, without format, lint and sanitizers
  --tsan    build and run the tests under ThreadSanitizer too
EOF
}

presets=(asan dev)
quick=no
less=()
case "${1:-}" in
"") ;;
--quick) quick=yes presets=(dev) less=(-LE kernel) ;;
--tsan) presets=(tsan asan dev) ;;
-h | --help)
    usage
    exit 0
    ;;
*)
    usage >&2
    exit 2
    ;;
esac

scripts/setup.sh
if [ "$quick" = no ]; then
    scripts/check.sh
    echo "== release: build of the programs" # where the demo looks for them, too
    cmake --preset release -DTAVOR_BUILD_TESTS=OFF -DTAVOR_BUILD_BENCH=OFF -B build/demo >/dev/null
    cmake --build build/demo
    scripts/vm-test.sh --install || [ $? -eq 77 ] # else its tests are skipped
fi
for preset in "${presets[@]}"; do
    echo "== $preset: build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    echo "== $preset: tests"
    ctest --preset "$preset" "${less[@]}"
done
