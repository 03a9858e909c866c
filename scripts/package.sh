#!/usr/bin/env bash
# Builds the Debian packages tavor, tavorctl, tavor-relay, tavor-relay-mqtt, tavor-board and libtavor-dev from this tree into
# build/package, and has lintian judge them. Takes build-essential, debhelper and what scripts/setup.sh installs; lintian where it is there.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

case "${1:-}" in
"") ;;
*)
    echo "usage: scripts/package.sh"
    [ "$1" = --help ] || [ "$1" = -h ] || exit 2
    exit 0
    ;;
esac
for tool in dh dpkg-buildpackage; do
    command -v "$tool" >/dev/null || {
        echo "package: $tool is missing: apt-get install build-essential debhelper" >&2
        exit 1
    }
done

version=$(sed -n 's/^project(tavor VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
work=$PWD/build/package
tree=$work/tavor-$version
rm -rf "$work"
mkdir -p "$tree"
find . -mindepth 1 -maxdepth 1 ! -name build ! -name '.git*' -exec cp -a {} "$tree" \;
mv "$tree/packaging/debian" "$tree/debian"
cat >"$tree/debian/changelog" <<EOT
tavor ($version) unstable; urgency=medium

  * See CHANGELOG.md.

 -- tavor maintainers <maintainers@tavor.example>  $(LC_ALL=C date -uR)
EOT

(cd "$tree" && dpkg-buildpackage -us -uc) >"$work/build.log" 2>&1 || {
    tail -n 60 "$work/build.log" >&2
    echo "package: the build failed: $work/build.log" >&2
    exit 1
}
ls -l "$work"/*.deb
if command -v lintian >/dev/null; then
    lintian --fail-on error,warning "$work"/*.changes
fi
