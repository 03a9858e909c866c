# usage: bash completion_bash.bash FILE LINE...: the words that bash offers at the end of each line, blank-separated; FILE holds the
# completion. The function is called as readline calls it.
source /usr/share/bash-completion/bash_completion
source "$1"
shift
for line in "$@"; do
    # Readline breaks words at an equals sign too.
    read -ra COMP_WORDS <<<"${line//=/ = }"
    [[ $line != *' ' ]] || COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMP_LINE=$line COMP_POINT=${#line} COMPREPLY=()
    _tavor
    echo "${COMPREPLY[@]}"
done
