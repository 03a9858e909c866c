#!/usr/bin/env bash
# usage: completion_test.sh SHELL DIR: holds what the completion of bash or zsh offers against --help of the programs in DIR, command by
# command. Exit codes: 0 the same, 1 not, 77 not run because the shell isn't there.
set -euo pipefail
shell=$1
export PATH=$2:$PATH
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
file=$here/../../packaging/completion/tavor.$shell
limit_s=120

case $shell in
bash) there=/usr/share/bash-completion/bash_completion ask=(bash "$here/completion_bash.bash") ;;
zsh) there=$(command -v zsh || echo none) ask=(zsh -f "$here/completion_zsh.zsh") ;;
esac
[ -e "$there" ] || {
    echo "completion: not run: no completion of $shell here"
    exit 77
}

lines=()    # what is typed
expected=() # what must be offered for it, sorted
expect() {
    lines+=("$1")
    expected+=("$(tr ' ' '\n' <<<"$2" | sort | paste -sd ' ')")
}

# names SECTION: the first words of the section's lines in a help text, short options left out.
names() {
    sed -n "/^ *$1:\$/,/^\$/s/^ \{2,4\}\(-.,\)\{0,1\}\([A-Za-z-][A-Za-z0-9-]*\)\([ {].*\)\{0,1\}\$/\2/p" | paste -sd ' '
}

# Each program and command: its options, its commands, theirs.
walk() { # command line
    local help commands command
    help=$($1 --help)
    expect "$1 --" "$(names Options <<<"$help")"
    commands=$(names Subcommands <<<"$help")
    [ -n "$commands" ] || return 0
    expect "$1 " "$commands"
    for command in $commands; do
        walk "$1 $command"
    done
}

walk tavorctl
walk tavor-board
[ ! -x "$2/tavor-relay" ] || walk tavor-relay
expect "tavorctl sto" "stop"
expect "tavorctl export --cs" "--csv" # an option of a group
expect "tavorctl --timeout 3 sav" "save"           # an option's value is no command
expect "tavorctl --timeout " ""                    # nor is it offered for a value
expect "tavorctl debug " "off file serial tcp"
expect "tavorctl start --wait=3 --fi" "--fix"
expect "tavorctl record --append --st" "--stamps --stop" # no value follows an option that excludes another
expect "tavorctl record --append $here/completion_test" "completion_test.sh"
expect "tavorctl export --gpx $here/completion_test" "completion_test.sh"
expect "tavorctl --socket $here/completion_test" "completion_test.sh"
expect "tavor-board run --dir $here/../syst" "system"
expect "tavor-board ctl --dir /tmp po" "power"
expect "tavor-board run -- cat $here/completion_test" "completion_test.sh"

status=0
mapfile -t offered < <(timeout $limit_s "${ask[@]}" "$file" "${lines[@]}")
for i in "${!lines[@]}"; do
    words=$(tr ' ' '\n' <<<"${offered[i]-}" | sed 's|.*/||; s/[)/]$//' | sort -u | paste -sd ' ')
    if [ "$words" != "${expected[i]}" ]; then
        printf 'completion: after "%s" offered: %s\n  expected: %s\n' "${lines[i]}" "$words" "${expected[i]}" >&2
        status=1
    fi
done
echo "completion: ${#lines[@]} lines tried in $shell"
exit $status
