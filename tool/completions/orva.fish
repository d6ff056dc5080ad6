# Completion of the command orva for fish.
set -l verbs \
    'pack -h --help -o --output --dict --level --block -f --force --no-sync -T --threads --progress -v --verbose' \
    'join -h --help --row0 -o --output --dict --check -f --force --no-sync -T --threads --progress -v --verbose' \
    'cat -h --help --row0 --swap --range --records --records-where --record-size --damaged -o --output -f --force --no-sync -T --threads --progress -v --verbose' \
    'append -h --help --row0 --swap --no-sync --level -T --threads --progress -v --verbose' \
    'info -h --help --row0 --swap --blocks --json' \
    'verify -h --help --row0 --swap --json -T --threads --progress -v --verbose' \
    'splits -h --help --row0 --swap --json --count --record-size --delimiter' \
    'recover -h --help --row0 --swap -o --output --committed --drop --json --roll-back -f --force --no-sync'
for line in $verbs
    set -l words (string split ' ' -- $line)
    complete -c orva -n __fish_use_subcommand -f -a $words[1]
    for option in $words[2..]
        set -l kind -l
        string match -q -- '--*' $option; or set kind -s
        complete -c orva -n "__fish_seen_subcommand_from $words[1]" $kind (string trim -l -c - -- $option)
    end
end
complete -c orva -n __fish_use_subcommand -f -s h -l help
complete -c orva -n __fish_use_subcommand -f -l version
