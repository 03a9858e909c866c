#!/usr/bin/env bash
# Sets up, builds and runs everything that must hold: format, lint, and all tests plainly, under AddressSanitizer with
# UndefinedBehaviorSanitizer, and under ThreadSanitizer. With --quick only the plain tests.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

usage() {
    cat <<EOF
usage: scripts/test.sh [--quick]
  --quick   build and run the plain tests only, without format, lint and sanitizers
EOF
}

presets=(tsan asan dev)
quick=no
case "${1:-}" in
"") ;;
--quick) quick=yes presets=(dev) ;;
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
    cmake --preset dev >/dev/null
    scripts/check.sh
fi
for preset in "${presets[@]}"; do
    echo "== $preset: build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset"
    echo "== $preset: tests"
    ctest --preset "$preset"
done
