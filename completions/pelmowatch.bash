# Completion of pelmowatch's forms, options and values, for bash.

_pelmowatch() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local source="-i --interface --wait-interface -r --read --from --to --strict -u --interval -addr --addr -src --src
        -dst --dst -port --port -filter --filter --help"
    local -A options=(
        [json]="--rows --since-start --senders"
        [serve]="--listen --host --hosts --subjects --expire --max-series --max-clients --senders --pace"
        [report]="-o --output --senders --against --against-from --against-to"
        [compare]="--against --against-from --against-to --factor --all"
        [messages]="--subject --sender --fields --count --text --repeats --point-to-point"
        [top]="--speed"
    )
    # Options whose values nobody can guess.
    local values=" --from --to -u --interval -addr --addr -src --src -dst --dst -port --port -filter --filter
        --subject --sender --fields --count --listen --host --subjects --expire --max-series --max-clients --speed
        --against-from --against-to --factor "

    # The last option before the word: -r takes several files.
    local at=$((COMP_CWORD - 1))
    while ((at > 1)) && [[ ${COMP_WORDS[at]} != -?* ]]; do
        ((at--))
    done

    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "${!options[*]} --help --version" -- "$current")
    elif [[ $previous == -i || $previous == --interface ]]; then
        mapfile -t COMPREPLY < <(cd /sys/class/net && compgen -f -- "$current")
    elif [[ $previous == @(-r|--read|--against|-o|--output) ||
            $current != -* && ${COMP_WORDS[at]} == @(-r|--read|--against) ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    elif [[ $values != *[[:space:]]"$previous"[[:space:]]* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$source ${options[${COMP_WORDS[1]}]-}" -- "$current")
    fi
}

complete -o filenames -F _pelmowatch pelmowatch
