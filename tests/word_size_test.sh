#!/bin/bash
# A store made by programs of another word size: word_size_test.sh ZOLCTL ZOLCTL_OF_THE_OTHER_SIZE
# Each program is refused by the other one's store with one line, and does no harm to it.
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export ZOL_VCONF_DIR=$work/store
fail() { echo "FAILED: $*: $(<"$work/log")" && exit 1; }

for pair in "$1|$2" "$2|$1"; do
    maker=${pair%|*} other=${pair#*|}
    rm -rf "$ZOL_VCONF_DIR"
    "$maker" load - <<<'{"OSDLanguage":"de_DE","WebAppInstall":"app"}'
    "$maker" dump >"$work/before"
    data=$ZOL_VCONF_DIR/persistent/data.mdb
    size=$(stat -c %s "$data")
    for state in large open; do
        if [ $state = large ]; then # beyond what 32 bits can count
            truncate -s 3G "$data"
        else
            exec 3< <(exec "$maker" watch --count 1 --timeout 60 2>&1)
            read -r _ <&3 # it is ready
        fi
        for command in "get OSDLanguage" "set OSDLanguage fr_FR" "inject WebAppInstall other"; do
            # shellcheck disable=SC2086 # words
            ! ZOL_DLOG=$work/log "$other" $command >/dev/null 2>&1 || fail "$state: $command succeeds"
            lines=$(grep VCONF "$work/log" | cut -d: -f4- | sort -u)
            [[ $lines == *" bits; set ZOL_VCONF_DIR to another folder"* && $lines != *$'\n'* ]] || fail "$state: $command"
            rm "$work/log"
        done
        truncate -s "$size" "$data"
        "$maker" dump | diff "$work/before" - || fail "$state: the store has changed"
    done
    "$maker" inject WebAppInstall new
    grep -q new <&3 || fail "the watcher was harmed"
done
