# Completion of pelmobridge's options and values, for bash.

_pelmobridge() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local options="--nats --service --network --daemon --from-bus --stream --to-bus --durable --format
        --prefix-nats --prefix-bus --name --group --replay --buffer --request-timeout --credentials --tls-ca
        --tls-cert --tls-key --help --version"
    case $previous in
        --format) mapfile -t COMPREPLY < <(compgen -W "wire json" -- "$current") ;;
        --replay) mapfile -t COMPREPLY < <(compgen -W "original instant" -- "$current") ;;
        --credentials | --tls-ca | --tls-cert | --tls-key)
            mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
        # Values that can't be guessed.
        --nats | --service | --network | --daemon | --from-bus | --stream | --to-bus | --durable | \
            --prefix-nats | --prefix-bus | --name | --group | --buffer | --request-timeout) ;;
        *) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current") ;;
    esac
}

complete -F _pelmobridge pelmobridge
