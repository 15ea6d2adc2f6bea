#!/bin/bash
# Prints a public header as Doxygen reads it: docs/reference-filter.sh HEADER
# A flat function takes the text of the class operation that it calls. What a header makes from the rows of ZOLSettings.h
# gets one line each, because Doxygen applies a comment only to the first declaration of a line.
set -euo pipefail

# expand_rows HEADER ACCESS DECLARATION: the header with a declaration for each row that has this access.
expand_rows() {
    local rows
    rows=$(sed -nE "s/^ *ROW\(([A-Za-z]+),.*$2,.*/$3/p" include/ZOLSettings.h)
    awk -v rows="$rows" '/^ *ZOL_SETTINGS\(/ { print rows; next } { print }' "$1"
}

case $1 in
    */capi-zol-tv.h)
        sed -E 's,^ZOL_API [a-z]+ ZOLSystemData(Notify)?([A-Za-z]+)\(,/// @copydoc ZOLSystemData\1::\2\n&,' "$1"
        ;;
    */ZOLVconfKeys.h) expand_rows "$1" '' 'constexpr char \1[];' ;;
    */ZOLWatch.h) expand_rows "$1" 'WATCH' 'template <class Callable> static ZOLWatch \1(Callable callable);' ;;
    *) cat "$1" ;;
esac
