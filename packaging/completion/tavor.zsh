#compdef tavorctl tavor-relay tavor-board
# zsh completion of tavor's programs. What there is to complete is asked of the program itself, by --help: it can't be out of date.

# The lines of a help text as KIND:NAME:TYPE:DESCRIPTION, KIND one of o (option), c (command), p (positional); TYPE is empty for a flag.
_tavor_help() {
    local line kind name type rest
    "$@" --help 2>/dev/null | while IFS= read -r line; do
        case $line in
        '') kind= ;;
        Options:|'  Options:') kind=o ;;
        Subcommands:) kind=c ;;
        Positionals:) kind=p ;;
        '  '[-A-Za-z]*|'    '[-A-Za-z]*) # options of a group stand two columns further in
            [[ -n $kind ]] || continue
            line=${line#"${line%%[^ ]*}"}
            name=${line%% *} rest=${line#"$name"} type=
            [[ $rest != ' '[^\ ]* ]] || { type=${${rest# }%% *}; rest=${rest#" $type"} }
            [[ $type != Excludes: ]] || { type= rest=${${rest# }#* } }
            print -r -- "$kind:${${name#-?,}%%\{*}:${type//:/|}:${rest##( |REQUIRED|...)#}"
            ;;
        esac
    done
}

# Words for a value of the type, as the help text names it; after NAME: where it has a place.
_tavor_value() {
    case $1 in
    *\{*\}*) _values value ${(s:,:)${1#*\{}%%\}*} ;;
    FILE*|*[\|:]FILE*|PATH*) _files ;;
    DIR*) _files -/ ;;
    *) _message "${${1%%:*}:-no value}" ;;
    esac
}

_tavor() {
    setopt localoptions extendedglob
    local -a command=("$words[1]") lines options commands places
    local type= word i place=1
    lines=("${(@f)$(_tavor_help $command)}")
    for ((i = 2; i < CURRENT; i++)); do
        word=$words[i]
        if [[ -n $type ]]; then
            type= # the word was an option's value
        elif [[ $word == -- ]]; then
            shift i words
            ((CURRENT -= i))
            _normal
            return
        elif [[ $word == -* ]]; then
            type=${${${(M)lines:#o:$word:*}#o:$word:}%%:*}
        elif [[ -n ${(M)lines:#c:$word:*} ]]; then
            command+=($word) place=1
            lines=("${(@f)$(_tavor_help $command)}")
        else
            ((place++))
        fi
    done
    # NAME:DESCRIPTION
    options=(${${(M)lines:#o:*}/(#b)o:([^:]#):[^:]#:(*)/$match[1]:$match[2]})
    commands=(${${(M)lines:#c:*}/(#b)c:([^:]#):[^:]#:(*)/$match[1]:$match[2]})
    places=(${(M)lines:#p:*})
    if [[ -n $type ]]; then
        _tavor_value $type
    elif [[ $PREFIX == -* ]]; then
        _describe -o option options
    elif (($#commands)); then
        _describe command commands
    elif ((place <= $#places)); then
        _tavor_value ${${(M)places[place]##p:[^:]#:[^:]#}#p:}
    fi
}

_tavor "$@"
