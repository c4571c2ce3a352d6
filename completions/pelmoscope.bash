# Completion of pelmoscope's options and values, for bash.

_pelmoscope() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local options="-i -addr -src -dst -port -filter -u -r -w -rate -addrinfo -no-mcast -ptp
        -no-subjects -hostmsgs -complain -logfile -log-rotate -log-max-size -log-max-rotations
        -w-rotate -w-max-size -w-max-rotations -foreground -no-display -snmp"
    case $previous in
        -i)
            local interfaces=(/sys/class/net/*)
            mapfile -t COMPREPLY < <(compgen -W "${interfaces[*]##*/}" -- "$current")
            ;;
        -r | -w | -logfile)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            ;;
        # Values that nobody can guess.
        -addr | -src | -dst | -port | -filter | -u | -log-rotate | -log-max-size | \
            -log-max-rotations | -w-rotate | -w-max-size | -w-max-rotations) ;;
        *) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current") ;;
    esac
}

complete -F _pelmoscope pelmoscope
