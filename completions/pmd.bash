# Completion of pmd's options and values, for bash.

_pmd() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local options="-listen -no-permanent --ask-stand-in --client-backlog --memory --max-clients --oska
        --interface --help --version"
    case $previous in
        # Values that nobody can guess.
        -listen | --listen | --client-backlog | --memory | --max-clients | --oska | --interface) ;;
        *) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current") ;;
    esac
}

complete -F _pmd pmd
