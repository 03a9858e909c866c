# bash completion of tavor's programs. What there is to complete is asked of the program itself, by --help: it can't be out of date.

# The lines of a help text as KIND NAME TYPE, KIND one of o (option), c (command), p (positional); TYPE is empty for a flag. Options of
# a group stand two columns further in.
_tavor_help() {
    "$@" --help 2>/dev/null | sed -n \
        -e '/^$/{x;s/.*//;x;}' \
        -e '/^ *Options:/{s/.*/o/;h;}' -e '/^Subcommands:/{s/.*/c/;h;}' -e '/^Positionals:/{s/.*/p/;h;}' \
        -e '/^ \{2,4\}[-A-Za-z]/{s/^ *//;s/^-[^ ],--/--/;s/^\([^ {]*\)[^ ]*/\1/;s/^\([^ ]*\) \([^ ]*\).*/\1 \2/;s/ Excludes:$//;s/ $//;G;s/^\(.*\)\n\([ocp]\)$/\2 \1/p;}'
}

# Words for a value of the type, as the help text names it; after the name where it has a place.
_tavor_value() {
    case $1 in
    *:{*}*)
        local choices=${1#*:\{}
        choices=${choices%%\}*}
        COMPREPLY=($(compgen -W "${choices//,/ }" -- "$2"))
        ;;
    FILE* | *[:\ ]FILE* | PATH*)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$2")
        ;;
    DIR*)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$2")
        ;;
    esac
}

# A program and its arguments from the given word on.
_tavor_program() {
    if declare -F _command_offset >/dev/null; then
        _command_offset "$1"
    else
        mapfile -t COMPREPLY < <(compgen -c -- "${COMP_WORDS[COMP_CWORD]}")
    fi
}

_tavor() {
    local cur words cword
    if declare -F _get_comp_words_by_ref >/dev/null; then
        _get_comp_words_by_ref -n = cur words cword
    else
        words=("${COMP_WORDS[@]}") cword=$COMP_CWORD cur=${COMP_WORDS[COMP_CWORD]}
    fi
    local command=("${words[0]}") table type="" word i places=0
    table=$(_tavor_help "${command[@]}")
    COMPREPLY=()
    for ((i = 1; i < cword; i++)); do
        word=${words[i]}
        if [ -n "$type" ]; then
            type= # the word was an option's value
        elif [ "$word" = -- ]; then
            _tavor_program $((i + 1))
            return
        elif [[ $word == -* ]]; then
            type=$(sed -n "s/^o $word //p" <<<"$table")
        elif grep -qx "c $word" <<<"$table"; then
            command+=("$word") places=0
            table=$(_tavor_help "${command[@]}")
        else
            places=$((places + 1))
        fi
    done
    if [ -n "$type" ]; then
        _tavor_value "$type" "$cur"
    elif [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$(sed -n 's/^o \([^ ]*\).*/\1/p' <<<"$table")" -- "$cur"))
    else
        COMPREPLY=($(compgen -W "$(sed -n 's/^c //p' <<<"$table")" -- "$cur"))
        [ ${#COMPREPLY[@]} -gt 0 ] || _tavor_value "$(sed -n 's/^p //p' <<<"$table" | sed -n "$((places + 1))p")" "$cur"
    fi
}

complete -F _tavor tavorctl tavor-relay tavor-board
