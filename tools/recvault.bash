# Completion of the command recvault for bash. The command itself is asked for its subcommands and options.

_recvault() {
    local word=${COMP_WORDS[COMP_CWORD]} help
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        help=$("${COMP_WORDS[0]}" --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z]\+\) .*/\1/p')
        mapfile -t COMPREPLY < <(compgen -W "$help --help" -- "$word")
    elif [[ $word == -* ]]; then
        help=$("${COMP_WORDS[0]}" "${COMP_WORDS[1]}" --help 2>/dev/null | grep -oE -- '--[a-z-]+')
        mapfile -t COMPREPLY < <(compgen -W "$help" -- "$word")
    fi
}
complete -o default -F _recvault recvault
