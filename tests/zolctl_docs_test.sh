#!/bin/bash
# Tests that the manual page and the completion have exactly the commands and options that zolctl --help has.
# Usage: tests/zolctl_docs_test.sh ZOLCTL MANUAL_PAGE COMPLETION
# shellcheck disable=SC2013,SC2016,SC2046,SC2086 # commands are to be split into words, and awk has its own variables
set -uo pipefail
zolctl=$1 page=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export ZOL_VCONF_DIR=$work/store
# shellcheck disable=SC1090
. "$3"
same() { diff <(echo "$2") <(echo "$3") || { echo "FAILED: $1" && exit 1; }; }

# offered WORD...: what is offered to complete the last of the words.
offered() {
    COMP_WORDS=("$zolctl" "$@") COMP_CWORD=$#
    _zolctl "$zolctl" && echo "${COMPREPLY[*]-}"
}

# Each command with what belongs to it, as "concurrent:list" and "concurrent list:--json": in the help, ...
walk() {
    local help name
    help=$("$zolctl" $1 --help)
    sed -nE '/^Options:/,/^$/ s/^  (-[^ ]*).*/\1/p' <<<"$help" | tr , '\n' | sed "s/^/$1:/"
    for name in $(sed -nE '/^Subcommands:/,/^$/ s/^  ([a-z]+) .*/\1/p' <<<"$help"); do
        echo "$1:$name"
        walk "$1${1:+ }$name"
    done
}
help=$(walk "" | sort)
# ... and on the page.
in_page=$(awk '/^\.SH/ { command = "" }
    /^\.SS/ {
        gsub(/^\.SS "?| *(\\f.*)?"?$/, "")
        command = $0
        sub(/ ?[a-z]+$/, ":&")
        sub(/: /, ":")
        print
    }
    tag { for (i = 2; i <= NF; ++i) if ($i ~ /^\\-/) { gsub(/\\/, "", $i); print command ":" $i } }
    { tag = /^\.TP/ }' "$page" | sort)
same "the manual page" "$(grep -vE '^.+:(-h|--help)$' <<<"$help")" "$in_page"

"$zolctl" concurrent enable app.b 'app $(touch x)' other $'app\nfood'
while IFS='|' read -r words expected; do
    IFS=_ read -ra typed <<<"${words}_"
    same "completion of $words" "$expected" "$(offered "${typed[@]}")"
done <<END
-v_set_ZOLM|ZOLMultipleMode
set_ZOLActivated_|off on
inject_ModelI|ModelId
watch_--json_--count_3_ZOLA|ZOLActivated
watch_ZOLActivated_ZOLA|
watch_OSD|OSDCountry
concurrent_disable_app|app\\ \\\$\\(touch\\ x\\) app.b
load_$work/st|$work/store
END
