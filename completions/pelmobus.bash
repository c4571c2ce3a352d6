# Completion of pelmobus's commands and options, for bash.

_pelmobus() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local connection="--service --network --daemon --no-resume --local --description --http --hidden
        --no-echo --reliability --batch"
    local values="--service --network --daemon --description --http --reliability --count --seconds
        --rate --reply --size --speed --prefix --to"
    local intake="--count --seconds --json --quiet"
    local -A options=(
        [listen]="$intake"
        [send]="--count --rate --json --pace --speed --original --prefix --to --lines --reply --size --sequence --wait"
        [request]="$intake --size --sequence --wait"
        [answer]="$intake --size --sequence"
        ["circuit accept"]="$intake" ["circuit connect"]="$intake"
        ["bench send"]="--count --seconds --rate --size"
        ["bench request"]="--count --seconds --size"
        ["bench listen"]="--count --seconds --size"
    )

    # The command is the first word that is neither an option nor the value of one.
    local at word command="" words="$connection"
    for ((at = 1; at < COMP_CWORD; at++)); do
        word=${COMP_WORDS[at]}
        case $word in
            -*) [[ $word == *=* || " $values " != *[[:space:]]$word[[:space:]]* ]] || ((++at)) ;;
            circuit | bench) command="$word ${COMP_WORDS[at + 1]}" && break ;;
            *) command=$word && break ;;
        esac
    done

    # Values that nobody can guess.
    if [[ $previous == -* && " $values " == *[[:space:]]$previous[[:space:]]* ]]; then
        COMPREPLY=()
        return
    fi
    if [[ -z $command ]]; then
        [[ $current == -* ]] || words="listen send request answer circuit bench"
    elif ((at + 1 == COMP_CWORD)) && [[ $command == circuit* ]]; then
        words="accept connect"
    elif ((at + 1 == COMP_CWORD)) && [[ $command == bench* ]]; then
        words="send request listen"
    elif [[ $current == -* ]]; then
        words=${options[$command]-}
    else
        words=""
    fi
    [[ $current != -* ]] || words+=" --help --version"
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _pelmobus pelmobus
