# usage: zsh -f completion_zsh.zsh FILE LINE...: the words that zsh offers at the end of each line, blank-separated; FILE holds the
# completion. A genuine interactive shell on a terminal of its own is asked.
zmodload zsh/zpty
file=$1
shift
work=$(mktemp -d)
cp $file $work/_tavorctl
cat >$work/setup <<EOT
fpath=($work \$fpath)
autoload -Uz compinit
compinit -u -D
# Each word offered is kept; calls that only try what would match are left alone.
compadd() {
    if [[ \${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]]; then
        builtin compadd "\$@"
        return
    fi
    local -a offered
    builtin compadd -A offered "\$@"
    told+=(\$offered)
    builtin compadd "\$@"
}
ask() {
    told=()
    BUFFER=\$asked
    CURSOR=\$#BUFFER
    zle list-choices
    print -r -- "<\$told>"
    BUFFER=
}
zle -N ask
bindkey '^X' ask
PS1= LISTMAX=10000 KEYTIMEOUT=1
EOT
zpty shell "zsh -f -i"
zpty -w shell "stty -echo; source $work/setup; print '<''ready>'"
zpty -r shell text '*<ready>*'
for line in "$@"; do
    zpty -w shell "asked=${(q)line}"
    zpty -n -w shell $'\x18'
    zpty -r -m shell text '*<*>*'
    print -r -- ${${text##*\<}%%\>*}
done
zpty -d shell
rm -rf $work
