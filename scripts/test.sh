#!/usr/bin/env bash
# Sets up, builds and runs everything that must hold: format, layers, lint, manuals; that what a device ships builds without a warning;
# all tests under AddressSanitizer with UndefinedBehaviorSanitizer and plainly; under ThreadSanitizer those of the threads; the unit tests
# on other processors, and those of the packages, where that is possible.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Where threads meet: folders of unit tests, programs and suites of system tests.
thread_folders=(queue mux link debug assist service)
thread_programs=(system_spine_test system_debug_test)
thread_suites='^system\.(Spine|Debug)'

usage() {
    cat <<EOF
usage: scripts/test.sh [--quick|--tsan]
  --quick   build and run the plain tests only, without format, lint and sanitizers
  --tsan    run all tests under ThreadSanitizer, not those of the threads only
EOF
}

# run_all PRESET [OPTION...]: builds everything and runs all tests, or those that the options of ctest leave.
run_all() {
    echo "== $1: build"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1"
    echo "== $1: tests"
    ctest --preset "$1" "${@:2}"
}

run_threads() {
    local folders
    folders=$(printf '|%s' "${thread_folders[@]}")
    echo "== tsan: build of the threads' tests"
    cmake --preset tsan >/dev/null
    cmake --build --preset tsan --target "${thread_programs[@]}" $(printf 'tests/unit/%s/all ' "${thread_folders[@]}")
    echo "== tsan: tests of the threads"
    ctest --preset tsan -L "^unit\.(${folders#|})\$"
    ctest --preset tsan -R "$thread_suites"
}

# build_for_device TREE TYPE: the programs without tests; a warning is an error.
build_for_device() {
    echo "== $2: build of the programs"
    cmake -S . -B "build/$1" -G Ninja -DCMAKE_BUILD_TYPE="$2" -DTAVOR_BUILD_TESTS=OFF -DTAVOR_BUILD_BENCH=OFF \
        -DCMAKE_COMPILE_WARNING_AS_ERROR=ON >/dev/null
    cmake --build "build/$1"
}

tsan=(run_threads)
case "${1:-}" in
"") ;;
--quick)
    scripts/setup.sh
    run_all dev -LE kernel
    exit 0
    ;;
--tsan) tsan=(run_all tsan) ;;
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
scripts/check.sh
build_for_device demo RelWithDebInfo # the type of the preset release, where the demo looks for the programs
build_for_device plain Release
echo "== other processors"
scripts/cross.sh || [ $? -eq 77 ]
scripts/vm-test.sh --install || [ $? -eq 77 ] # else its tests are skipped
echo "== packages"
built=
scripts/package-test.sh --no-install && built=build/package || [ $? -eq 77 ]
scripts/service-test.sh --no-install --packages build/package || [ $? -eq 77 ]
scripts/recipes-test.sh build/demo $built || [ $? -eq 77 ]
"${tsan[@]}"
run_all asan
run_all dev
