# Completes the command line of zolctl in bash. What fits is asked of zolctl itself.
# shellcheck shell=bash
_zolctl() {
    local word found
    COMPREPLY=()
    if ! found=$("${1/#\~/$HOME}" __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null); then
        compopt -o filenames 2>/dev/null # fails where no completion is under way
        mapfile -t COMPREPLY < <(compgen -f -- "${COMP_WORDS[COMP_CWORD]}")
        return
    fi
    while IFS= read -r word; do
        [ -z "$word" ] || COMPREPLY+=("$(printf %q "$word")") # app ids are whatever somebody wrote into the store
    done <<<"$found"
}
complete -F _zolctl zolctl
