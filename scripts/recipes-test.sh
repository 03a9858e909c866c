#!/usr/bin/env bash
# Holds the recipes for Yocto and Buildroot against the Debian packages: version, licence, options, users, units, and that the same files
# come onto a device. None of the build systems takes part: the recipes' own installation runs on a tree that is built already, and what
# the build systems add to it, such as Yocto's choice of files for its usual packages, is written down here. Debian's packages stand in
# packaging/debian/rules, and packages that are built are held against that.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

case "${1:-}" in
-*)
    echo "usage: scripts/recipes-test.sh [BUILD [PACKAGES]]
  BUILD      a build of all programs (build/release)
  PACKAGES   where scripts/package.sh has built the packages of this tree
Exit codes: 0 the recipes hold, 1 one doesn't, 77 not run because the build lacks a program."
    [ "$1" = --help ] || [ "$1" = -h ] || exit 2
    exit 0
    ;;
esac
objects=${1:-build/release}
packages=${2:-}
[ -e "$objects/cmake_install.cmake" ] || {
    echo "recipes-test: no build in $objects" >&2
    exit 1
}
for option in TAVOR_BUILD_RELAY TAVOR_RELAY_MQTT TAVOR_BUILD_BOARD; do
    grep -q "^$option:BOOL=\(ON\|TRUE\|1\)$" "$objects/CMakeCache.txt" || {
        echo "recipes-test: not run: $objects is built without $option"
        exit 77
    }
done
version=$(sed -n 's/^project(tavor VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
buildroot=packaging/buildroot/tavor
recipe=packaging/yocto/recipes-navigation/tavor/tavor_$version.bb
work=build/recipes-test
status=0

# same WHAT FILE FILE: two sorted lists.
same() {
    if diff "$2" "$3" >$work/diff; then
        echo "recipes-test: good  $1"
    else
        echo "recipes-test: BAD   $1" && cat $work/diff && status=1
    fi
}

holds() { # WHAT COMMAND...
    if "${@:2}" >/dev/null; then echo "recipes-test: good  $1"; else echo "recipes-test: BAD   $1" && status=1; fi
}

# install_all DIR [OPTION...]: what CMake installs, of all components or as the options say.
install_all() { rm -rf "$1" && DESTDIR=$PWD/$1 cmake --install "$objects" --prefix /usr "${@:2}" >/dev/null; }

# Packages called as Yocto calls them. Documents are left out: what Yocto has of them is all in one package, and Buildroot removes them.
by_package() {
    sed -e 's/^tavorctl /tavor-client /; s/^libtavor-dev /tavor-dev /' | grep -v ' /usr/share/\(doc\|man\|lintian\)/' | sort
}

# Each component becomes a package.
list_debian() {
    local pair
    for pair in $(sed -n 's/^components = //p' packaging/debian/rules); do
        install_all $work/component --component "${pair%:*}"
        (cd $work/component && find . ! -type d) | sed "s/^\./${pair#*:} /"
    done
    sed -nE 's,.* debian/([a-z-]+)(/etc/.*),\1 \2,p' packaging/debian/rules
}

# With paths as CMake installs them.
list_built_packages() {
    local deb
    for deb in $(find "$packages" -maxdepth 1 -name '*.deb' ! -name '*-dbgsym_*'); do
        dpkg-deb -c "$deb" | awk -v package="$(dpkg-deb -f "$deb" Package)" '$1 !~ /^d/ { print package, $6 }'
    done | sed -e 's, \./lib/systemd/, ./usr/lib/systemd/,; s/ \./ /; s,/usr/lib/[a-z0-9_]*-linux-gnu[a-z0-9]*/,/usr/lib/,' \
        -e 's,zsh/vendor-completions,zsh/site-functions,'
}

# The recipe's settings of packages, a line each: NAME PACKAGE VALUE.
read_recipe() {
    sed -e ':a' -e '/\\$/{N;s/\\\n/ /;ba' -e '}' "$recipe" | sed -nE 's/^([A-Z_]+):\$\{PN\}([a-z-]*) \+?= "(.*)"$/\1 tavor\2 \3/p'
}

# value_of NAME PACKAGE: with the recipe's variables replaced.
value_of() {
    local name=$1 package=$2 PN=tavor datadir=/usr/share sysconfdir=/etc bindir=/usr/bin sbindir=/usr/sbin libexecdir=/usr/libexec
    local nonarch_libdir=/usr/lib systemd_unitdir=/lib/systemd libdir
    libdir=/usr/$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$objects/CMakeCache.txt")
    eval "echo $(sed -n "s/^$name $package //p" $work/recipe)"
}

# What Yocto gives its usual packages, as far as this tree has such files.
usual_files() {
    case $1 in
    tavor-dev) echo /usr/include /usr/share/pkgconfig /usr/share/cmake ;;
    tavor-doc) echo /usr/share/doc /usr/share/man ;;
    tavor) echo /usr/bin/* /usr/sbin/* /usr/libexec/* /etc ;;
    esac
}

# Each file goes into the first package that asks for it.
list_yocto() {
    local S=$PWD D=$PWD/$work/yocto sysconfdir=/etc nonarch_libdir=/usr/lib systemd_unitdir=/lib/systemd package pattern file
    install_all $work/yocto
    eval "$(sed -n 's/^do_install:append()/append_install()/; /^append_install/,/^}/p' "$recipe")"
    append_install
    (cd "$D" && find . ! -type d | sed 's/^\.//') >$work/installed
    set -f # patterns are those of the recipe's tree
    for package in $(sed -n 's/^PACKAGES =+ "\(.*\)"/\1/p' "$recipe" | sed 's/\${PN}/tavor/g') tavor-dev tavor-doc tavor; do
        for pattern in $(usual_files "$package") $(value_of FILES "$package"); do
            while read -r file; do
                [[ $file != $pattern && $file != $pattern/* ]] || echo "$package $file"
            done <$work/installed
        done
    done >$work/claims
    set +f
    sed 's/^/none /' $work/installed >>$work/claims
    awk '!claimed[$2]++' $work/claims | grep -v '^tavor-doc ' | sed 's, /lib/, /usr/lib/,' | sort
}

# buildroot_make SETTING... TARGET: the package with all options, in a frame of what Buildroot gives it.
buildroot_make() {
    cat >$work/frame.mk <<'EOT'
BR2_PACKAGE_TAVOR_RELAY = y
BR2_PACKAGE_TAVOR_RELAY_MQTT = y
BR2_PACKAGE_TAVOR_BOARD = y
BR2_PACKAGE_NCURSES_WCHAR = y
BR2_EXTERNAL_TAVOR_PATH = packaging/buildroot
TAVOR_PKGDIR = packaging/buildroot/tavor
INSTALL = install
qstrip = $(strip $(subst ",,$(1)))
cmake-package =
include packaging/buildroot/external.mk
define line


endef
$(CURDIR)/installed:
	$(foreach hook,$(TAVOR_POST_INSTALL_TARGET_HOOKS),$($(hook))$(line))
	$(if $(BR2_INIT_SYSTEMD),$(TAVOR_INSTALL_INIT_SYSTEMD),$(TAVOR_INSTALL_INIT_SYSV))
print:
	$(foreach name,VERSION DEPENDENCIES CONF_OPTS USERS,$(info $(name) $(TAVOR_$(name))))@:
EOT
    make -s -f $work/frame.mk "$@"
}

# list_buildroot DIR SETTING...: with what Buildroot removes at the end.
list_buildroot() {
    install_all "$1"
    buildroot_make TARGET_DIR="$PWD/$1" "${@:2}" "$PWD/installed"
    rm -r "$1"/usr/{include,share/{cmake,pkgconfig,doc,man}}
    (cd "$1" && find . ! -type d | sed 's/^\.//') | sort
}

# Users, groups and members, as systemd's files tell them.
list_users() { cat packaging/*.sysusers | sed -n 's/^\([ugm]\) \([a-z-]*\) \([a-z-]*\).*/\1 \2 \3/p' | sed 's/^\([ug] .*\) -$/\1/' | sort; }
# Each user has a group of its name.
list_users_of_yocto() {
    sed -nE 's/^USERADD_PARAM .*--user-group .* ([a-z-]+)$/u \1/p; s/^GROUPADD_PARAM .* ([a-z-]+)$/g \1/p;
        s/^GROUPMEMS_PARAM .*--add ([a-z-]+) --group ([a-z-]+)$/m \1 \2/p' $work/recipe | sort
}
list_users_of_buildroot() {
    sed -nE '/^USERS/,$p' $work/buildroot.print | sed -E 's/^USERS//' | awk '
        $1 == "-" { print "g", $3; next }
        NF && $1 == $3 { print "u", $1 }
        NF && $8 != "-" { print "m", $1, $8 }' | sort
}

# What is only taken when it is there is no choice of the package's.
list_selected() { sed -n 's/.*select BR2_PACKAGE_//p' $buildroot/Config.in | tr 'A-Z_' 'a-z-' | sort; }
list_dependencies() { sed -n 's/^DEPENDENCIES //p' $work/buildroot.print | tr ' ' '\n' | grep -vx ncurses | sort; }

# Those of the build, less those for developers of tavor itself.
list_options() { sed -nE 's/^ *option\((TAVOR_[A-Z_]+) .*/\1/p; s/^set\((TAVOR_XOD_HOST) .*/\1/p' CMakeLists.txt client/CMakeLists.txt | sort; }
list_options_in() { grep -oE -- '-DTAVOR_[A-Z_]+=' | tr -d = | sed 's/-D//' | sort -u; }

rm -rf $work && mkdir -p $work
holds "Yocto: the recipe is of version $version" test -e "$recipe"
[ $status -eq 0 ] || exit 1
read_recipe >$work/recipe
holds "Yocto: the licence's sum" grep -q "md5=$(md5sum LICENSE | cut -d ' ' -f 1)\"" "$recipe"
holds "Buildroot: the licence's sum" grep -q "^sha256  $(sha256sum LICENSE | cut -d ' ' -f 1)  LICENSE" $buildroot/tavor.hash
buildroot_make print >$work/buildroot.print
holds "Buildroot: the package is of version $version" grep -qx "VERSION $version" $work/buildroot.print

list_options >$work/options
list_options_in <"$recipe" >$work/options.yocto
list_options_in <$work/buildroot.print >$work/options.buildroot
same "Yocto: every option of the build is chosen" $work/options $work/options.yocto
same "Buildroot: every option of the build is chosen" $work/options $work/options.buildroot

list_selected >$work/selected
list_dependencies >$work/dependencies
same "Buildroot: what it is built with is selected" $work/selected $work/dependencies

list_users >$work/users
list_users_of_yocto >$work/users.yocto
list_users_of_buildroot >$work/users.buildroot
same "Yocto: users and groups" $work/users $work/users.yocto
same "Buildroot: users and groups" $work/users $work/users.buildroot

list_debian | by_package >$work/debian.list
if [ -n "$packages" ]; then
    list_built_packages | by_package >$work/built.list
    same "Debian: the packages that are built have the files of their components" $work/debian.list $work/built.list
fi
list_yocto >$work/yocto.list
same "Yocto: the files of each package" $work/debian.list $work/yocto.list
sed -n 's,.* /usr/lib/systemd/system/,,p' $work/debian.list >$work/units
for package in tavor tavor-relay; do value_of SYSTEMD_SERVICE $package; done | tr ' ' '\n' | sort >$work/units.yocto
same "Yocto: the units" <(sort $work/units) $work/units.yocto
sed -n 's,.* /etc/,/etc/,p' $work/debian.list >$work/conffiles
value_of CONFFILES tavor | tr ' ' '\n' | sort >$work/conffiles.yocto
same "Yocto: the files that an administrator changes" $work/conffiles $work/conffiles.yocto

grep -v '^tavor-dev ' $work/debian.list | cut -d ' ' -f 2 | sort >$work/device
list_buildroot $work/buildroot BR2_INIT_SYSTEMD=y >$work/buildroot.list
same "Buildroot with systemd: the files" $work/device $work/buildroot.list
{ grep -v '/systemd/\|/sysusers\.d/\|/tmpfiles\.d/\|/service\.env$' $work/device && echo /etc/init.d/S50tavor; } | sort >$work/device.sysv
list_buildroot $work/buildroot >$work/buildroot.sysv.list
same "Buildroot without systemd: the files" $work/device.sysv $work/buildroot.sysv.list
exit $status
