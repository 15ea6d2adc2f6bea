#!/bin/bash
# The built library's file: library_file_test.sh LIBRARY EXPORTS
# It exports exactly what EXPORTS lists, needs nothing but the platform and the C and C++ runtime, and has its names.
set -euo pipefail
export LC_ALL=C
library=$1
failed=0

same() {
    if ! diff <(sort <<<"$2") <(sort <<<"$3"); then
        echo "FAILED: $1 (< expected, > found)"
        failed=1
    fi
}

same "exported symbols" "$(grep -v '^#' "$2")" "$(nm -D --defined-only --format=posix "$library" | cut -d' ' -f1)"

platform=$(printf '%s\n' dlog_print vconf_{get,set}_{bool,int,str} vconf_{ignore,notify}_key_changed)
# The runtime's symbols have versions; the weak ones are for the toolchain.
same "symbols needed from the platform" "$platform" \
    "$(nm -D --undefined-only --format=posix "$library" | awk '$1 !~ /@/ && $2 == "U" { print $1 }')"

same "soname" "libcapi-zol-tv.so.1" "$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')"
for name in libcapi-zol-tv.so libcapi-zol-tv.so.1; do
    link=$(dirname "$library")/$name
    same "file behind the link $name" "link to $(readlink -f "$library")" "$([ -L "$link" ] && echo "link to $(readlink -f "$link")")"
done
exit $failed
