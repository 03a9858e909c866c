#!/usr/bin/env bash
# usage: install_test.sh BUILD VERSION: installs the parts of the tree BUILD one by one. Each brings its own programs only, and with the
# part for developers, found by CMake or by pkg-config, somebody else's client is built.
set -euo pipefail
build=$1 version=$2
examples=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../docs/examples" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# install_part COMPONENT: into $work/COMPONENT.
install_part() { DESTDIR=$work/$1 cmake --install "$build" --component "$1" >/dev/null; }

# brings COMPONENT PROGRAM...: these programs and libraries, and no others.
brings() {
    install_part "$1"
    local found
    found=$(find "$work/$1" -type f \( -path '*bin/*' -o -name '*.so*' \) -printf '%f\n' | sort | paste -sd ' ')
    [ "$found" = "${*:2}" ] || {
        echo "install: component $1 brings '$found' instead of '${*:2}'"
        exit 1
    }
}

brings daemon tavor
brings client tavorctl
brings board libtavor_board.so tavor-board
brings dev

header=$(find "$work/dev" -name protocol.h)
prefix=${header%/include/tavor/protocol.h}
mkdir "$work/other"
cp "$examples/client.c" "$work/other"
printf "#include <tavor/protocol.h>\nint main() {}\n" >"$work/other/empty.cpp"
cat >"$work/other/CMakeLists.txt" <<EOT
cmake_minimum_required(VERSION 3.16)
project(client LANGUAGES C CXX)
find_package(tavor $version REQUIRED)
add_executable(client client.c)
add_executable(empty empty.cpp)
target_link_libraries(client tavor::protocol)
target_link_libraries(empty tavor::protocol)
EOT
cmake -S "$work/other" -B "$work/other/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/other/build" >/dev/null

export PKG_CONFIG_PATH=$prefix/share/pkgconfig PKG_CONFIG_SYSROOT_DIR=$work/dev
pkg-config --exact-version="$version" tavor
cc -Wall -Werror $(pkg-config --cflags tavor) -o "$work/other/by_pkg_config" "$work/other/client.c"
