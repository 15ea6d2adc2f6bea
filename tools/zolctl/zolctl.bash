# Completes the command line of zolctl in bash; needs nothing but bash and zolctl itself.
# shellcheck shell=bash

# Takes words, one a line, and offers those that begin as what is typed. They are quoted, since app ids are whatever
# somebody wrote into the store.
_zolctl_offer() {
    local word
    while IFS= read -r word; do
        [[ $word != "$typed"* ]] || COMPREPLY+=("$(printf %q "$word")")
    done
}

# Offers the settings whose access has the word in it, but for those that are given already.
_zolctl_settings() {
    local name type access
    while read -r name type access _; do
        [[ $name == NAME || $access != *$1* || " ${given[*]} " == *" $name "* ]] || echo "$name"
    done < <(ZOL_DLOG=off "$zolctl" list 2>/dev/null) | sort
}

# Says on and off if the setting is a boolean.
_zolctl_values() {
    local name type
    while read -r name type _; do
        [[ $name != "$1" || $type != boolean ]] || printf '%s\n' on off
    done < <(ZOL_DLOG=off "$zolctl" list 2>/dev/null)
}

_zolctl() {
    local zolctl=${1/#\~/$HOME} typed=${COMP_WORDS[COMP_CWORD]} options=() commands=() given=() command at
    COMPREPLY=()
    for ((at = 1; at < COMP_CWORD; ++at)); do
        case ${COMP_WORDS[at]} in
            --count | --timeout)
                [[ ${COMP_WORDS[at + 1]} != "=" ]] || ((++at)) # bash takes --count=1 for three words
                ((++at < COMP_CWORD)) || return 0
                ;;
            -* | =) ;;
            *) given+=("${COMP_WORDS[at]}") ;;
        esac
    done
    command=${given[0]-}
    given=("${given[@]:1}")
    if [[ $command == concurrent && ${#given[@]} -gt 0 ]]; then
        command="concurrent ${given[0]}"
        given=("${given[@]:1}")
    fi

    case $command in
        "")
            options=(--version)
            commands=(list get set inject dump load concurrent watch selftest)
            ;;
        list) options=(--long --json) ;;
        get | dump | "concurrent list") options=(--json) ;;
        concurrent) commands=(list enable disable) ;;
        watch) options=(--count --timeout --diff --json) ;;
        selftest) options=(--timeout) ;;
    esac
    if [[ $typed == -* ]]; then
        _zolctl_offer < <(printf '%s\n' -h --help -v --verbose "${options[@]}")
        return
    fi
    case $command,${#given[@]} in
        ,0 | concurrent,0) _zolctl_offer < <(printf '%s\n' "${commands[@]}") ;;
        get,0 | inject,0) _zolctl_offer < <(_zolctl_settings "") ;;
        set,0) _zolctl_offer < <(_zolctl_settings write) ;;
        set,1 | inject,1) _zolctl_offer < <(_zolctl_values "${given[0]}") ;;
        watch,*) _zolctl_offer < <(_zolctl_settings watch) ;;
        "concurrent disable",*) _zolctl_offer < <(ZOL_DLOG=off "$zolctl" concurrent list 2>/dev/null) ;;
        load,0)
            compopt -o filenames 2>/dev/null # fails where no completion is under way
            mapfile -t COMPREPLY < <(compgen -f -- "$typed")
            ;;
    esac
}

complete -F _zolctl zolctl
