# Completion of the command orva for bash.
_orva() {
    local word=${COMP_WORDS[COMP_CWORD]} verb=${COMP_WORDS[1]}
    local -A options=(
        [pack]='-h --help -o --output --dict --level --block -f --force --no-sync -T --threads --progress -v --verbose'
        [join]='-h --help --row0 -o --output --dict --check -f --force --no-sync -T --threads --progress -v --verbose'
        [cat]='-h --help --row0 --swap --range --records --records-where --record-size --damaged -o --output -f --force --no-sync -T --threads --progress -v --verbose'
        [append]='-h --help --row0 --swap --no-sync --level -T --threads --progress -v --verbose'
        [info]='-h --help --row0 --swap --blocks --json'
        [verify]='-h --help --row0 --swap --json -T --threads --progress -v --verbose'
        [splits]='-h --help --row0 --swap --json --count --record-size --delimiter'
        [recover]='-h --help --row0 --swap -o --output --committed --drop --json --roll-back -f --force --no-sync'
    )
    if [ "$COMP_CWORD" = 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "${!options[*]} --help --version" -- "$word")
    elif [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "${options[$verb]:-}" -- "$word")
    elif [ "${COMP_WORDS[COMP_CWORD - 1]}" = --progress ]; then
        mapfile -t COMPREPLY < <(compgen -W "auto never" -- "$word")
    elif [ "${COMP_WORDS[COMP_CWORD - 1]}" = --damaged ]; then
        mapfile -t COMPREPLY < <(compgen -W "stop zero skip" -- "$word")
    fi
}
complete -o default -F _orva orva
