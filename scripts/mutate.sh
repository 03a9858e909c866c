#!/usr/bin/env bash
# Plants the mistakes that tests/mutants/ keeps, one at a time and each in a copy of the tree, and fails when the tests that it names
# do not notice it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

top=$PWD
work=$top/build/mutate
jobs=$(nproc)
limit=300
fresh=no

usage() {
    cat <<EOT
usage: scripts/mutate.sh [--jobs N] [--limit S] [--fresh] [PATTERN...]
  PATTERN     plant only mistakes whose name (folder/name, as in tests/mutants/) matches: "link/*", "mux/*lock*", "debug";
              default: all
  --jobs N    so many at a time, each in a copy of the tree with a build tree of its own; default: one for each processor ($jobs)
  --limit S   bound of a run of one test program, in seconds; default: $limit
  --fresh     begin with new copies instead of those of the last run

A mistake is a file tests/mutants/FOLDER/NAME.patch: a line "What: " that names it, a line "Tests: " with the test programs
that notice it (any one of them is enough, the quickest first; "PROGRAM:FILTER" runs only the tests that the GoogleTest filter
names), then a unified diff of the sources with the paths a/... and b/... It must apply without fuzz.

First all named programs are built and run without a mistake: they must pass. Then each mistake gets one line:
  noticed         a test failed, or its program ended by a signal or by a bound of its own
  UNNOTICED       all programs passed
  HANGS           a program ran into the bound of --limit: a test that waits needs a bound of its own, so this fails too
  NO BUILD, NO APPLY, NO HEADER   the patch does not fit the code any more, or lacks its header lines
Output of each: build/mutate/log/FOLDER/NAME.log. Ends with 0 when all are noticed, with 1 otherwise.
EOT
}

header() { sed -n "/^--- /q; s/^$2: *//p" "$1" | head -n 1; }

name_of() {
    local name=${1#"$top"/tests/mutants/}
    echo "${name%.patch}"
}

# program SLOT TEST: runs the test program of the copy; its tests only, or those of its filter.
run_program() {
    local tree=$work/$1 program=${2%%:*} arguments=(--gtest_brief=1 --gtest_fail_fast)
    case "$2" in
    fuzz_*) arguments=("$tree/tests/fuzz/corpus/${program#fuzz_}") ;;
    *:*) arguments+=("--gtest_filter=${2#*:}") ;;
    esac
    (cd "$tree/build/dev" && timeout --kill-after=10 "$limit" "bin/$program" "${arguments[@]}") </dev/null
}

build_programs() {
    local tree=$work/$1 parallel=$2
    shift 2
    nice cmake --build "$tree/build/dev" --parallel "$parallel" --target "${@%%:*}"
}

# sync SLOT: makes the copy equal to this tree. Only what differs is written, so that only that is built again.
sync() {
    local tree=$work/$1 file
    mkdir -p "$tree"
    while IFS= read -r -d '' file; do
        cmp -s "$file" "$tree/$file" && continue
        mkdir -p "$tree/$(dirname "$file")"
        cp "$file" "$tree/$file"
        touch "$tree/$file"
    done < <(sources .)
    (cd "$tree" && sources .) | while IFS= read -r -d '' file; do
        [ -e "$file" ] || rm "$tree/$file"
    done
}

sources() { find "$1" \( -path ./build -o -path ./.git -o -path ./tests/mutants \) -prune -o -type f -print0; }

configure() {
    local tree=$work/$1
    [ -e "$tree/build/dev/build.ninja" ] && return
    # A mistake may leave a variable unused. Headers compiled once would keep ccache from its work.
    (cd "$tree" && cmake --preset dev -DTAVOR_BUILD_BENCH=OFF -DCMAKE_COMPILE_WARNING_AS_ERROR=OFF \
        ${have_ccache:+-DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON} -DTAVOR_NMEA_LOGS="$logs" >/dev/null)
}

apply() { patch -d "$work/$1" -p1 -F0 -s --no-backup-if-mismatch --reject-file=- "${@:2}"; }

# planted PATCH SLOT: the verdict on one mistake, planted in the copy.
planted() {
    local patch=$1 slot=$2 tests test status
    read -ra tests <<<"$(header "$patch" Tests)"
    if [ -z "$(header "$patch" What)" ] || [ ${#tests[@]} -eq 0 ]; then
        echo "NO HEADER"
        return
    fi
    if ! apply "$slot" -N --dry-run <"$patch" >&2; then
        echo "NO APPLY"
        return
    fi
    apply "$slot" -N <"$patch" >&2
    if ! build_programs "$slot" "$threads" "${tests[@]}" >&2; then
        echo "NO BUILD"
        return
    fi
    for test in "${tests[@]}"; do
        status=0
        run_program "$slot" "$test" >&2 || status=$?
        case $status in
        0) continue ;;
        124 | 137) echo "HANGS by $test" ;;
        126 | 127) echo "NO BUILD" ;;
        *) echo "noticed by $test" ;;
        esac
        return
    done
    echo UNNOTICED
}

# one PATCH: called anew for each mistake, by xargs, which says which copy is free.
one() {
    local patch=$1 name verdict begin=$SECONDS log
    name=$(name_of "$patch")
    log=$work/log/$name.log
    mkdir -p "$(dirname "$log")"
    verdict=$(planted "$patch" "$MUTATE_SLOT" 2>"$log")
    [ "$verdict" = "NO APPLY" ] || [ "$verdict" = "NO HEADER" ] || {
        apply "$MUTATE_SLOT" -R <"$patch" >>"$log" 2>&1
    }
    echo "$verdict" >>"$work/verdicts"
    printf '%-9s %s: %s (%s%d s)\n' "${verdict%% by *}" "$name" "$(header "$patch" What)" \
        "$([[ $verdict == *" by "* ]] && echo "${verdict##* by }, ")" $((SECONDS - begin))
}

select_patches() {
    local patch name pattern
    [ -d tests/mutants ] || return 0
    while IFS= read -r patch; do
        name=$(name_of "$patch")
        [ $# -eq 0 ] && echo "$patch"
        for pattern in "$@"; do
            # shellcheck disable=SC2053  # it is a pattern
            if [[ $name == $pattern || $name == $pattern/* ]]; then
                echo "$patch"
                break
            fi
        done
    done < <(find "$top/tests/mutants" -name '*.patch' | sort)
}

# baseline TEST...: without a mistake all of them pass, or a failure would say nothing.
baseline() {
    local test failed=0
    for test in "$@"; do
        if ! run_program 0 "$test" >"$work/log/baseline.log" 2>&1; then
            cat "$work/log/baseline.log" >&2
            echo "mutate: $test fails without a mistake" >&2
            failed=1
        fi
    done
    return $failed
}

patterns=()
while [ $# -gt 0 ]; do
    case "$1" in
    --jobs | --limit)
        [[ "${2:-}" =~ ^[1-9][0-9]*$ ]] || {
            usage >&2
            exit 2
        }
        declare "${1#--}=$2"
        shift
        ;;
    --fresh) fresh=yes ;;
    --one) break ;;
    -h | --help)
        usage
        exit 0
        ;;
    -*)
        usage >&2
        exit 2
        ;;
    *) patterns+=("$1") ;;
    esac
    shift
done

if [ "${1:-}" = --one ]; then # from xargs below
    limit=$MUTATE_LIMIT threads=$MUTATE_THREADS
    one "$2"
    exit 0
fi

mapfile -t patches < <(select_patches "${patterns[@]}")
if [ ${#patches[@]} -eq 0 ]; then
    echo "mutate: no such mistake in tests/mutants" >&2
    exit 2
fi
[ "$jobs" -le ${#patches[@]} ] || jobs=${#patches[@]}
mkdir -p "$work/log"
exec 9>"$work/lock"
flock -n 9 || {
    echo "mutate: already at work in $work" >&2
    exit 2
}
[ "$fresh" = no ] || rm -rf "$work"/[0-9]*
have_ccache=$(command -v ccache || true)
export CCACHE_BASEDIR=$top CCACHE_NOHASHDIR=1 # all copies share what is compiled
logs=$(sed -n 's/^TAVOR_NMEA_LOGS:PATH=//p' build/dev/CMakeCache.txt 2>/dev/null || true)

mapfile -t tests < <(for patch in "${patches[@]}"; do header "$patch" Tests | tr -s ' \t' '\n'; done | sed '/^$/d' | sort -u)
for slot in $(seq 0 $((jobs - 1))); do
    echo "mutate: copy $slot: building ${#tests[@]} test programs"
    sync "$slot"
    configure "$slot"
    build_programs "$slot" "$(nproc)" "${tests[@]}" >"$work/log/build.log" 2>&1 || {
        tail -n 60 "$work/log/build.log" >&2
        echo "mutate: the tree does not build" >&2
        exit 1
    }
done
echo "mutate: without a mistake"
baseline "${tests[@]}"

rm -f "$work/verdicts"
threads=$((($(nproc) + jobs - 1) / jobs))
printf '%s\0' "${patches[@]}" |
    MUTATE_LIMIT=$limit MUTATE_THREADS=$threads xargs -0 -n 1 -P "$jobs" --process-slot-var=MUTATE_SLOT \
        scripts/mutate.sh --one || true # what ended without a verdict is not among the noticed
noticed=$(grep -c '^noticed' "$work/verdicts" || true)
echo "mutate: $noticed of ${#patches[@]} mistakes noticed in $SECONDS s"
[ "$noticed" -eq ${#patches[@]} ]
