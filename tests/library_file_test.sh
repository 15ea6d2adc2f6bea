#!/bin/bash
# The built files as they are installed: library_file_test.sh BUILD_DIR EXPORTS
# Each is hardened. The library exports exactly what EXPORTS lists, needs nothing but the platform and the C and C++
# runtime, and has its names.
set -euo pipefail
export LC_ALL=C
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0

same() { diff <(sort <<<"$2") <(sort <<<"$3") || { echo "FAILED: $1 (< expected, > found)" && failed=1; }; }

cmake --install "$1" --prefix "$scratch" >/dev/null
library=$(find "$scratch" -name 'libcapi-zol-tv.so.*.*')
same "exported symbols" "$(grep -v '^#' "$2")" \
    "$(nm -D --defined-only --format=posix "$library" | cut -d' ' -f1 | sed -E 's/(VconfCallbackMethodEP)[0-9].*Pv$/\1*Pv/')"

platform=$(printf '%s\n' dlog_print vconf_{get,set}_{bool,int,str} vconf_{ignore,notify}_key_changed)
# The runtime's symbols have versions; the weak ones are for the toolchain.
same "symbols needed from the platform" "$platform" \
    "$(nm -D --undefined-only --format=posix "$library" | awk '$1 !~ /@/ && $2 == "U" { print $1 }')"

same "routines that run when the library is loaded" 0 "$(nm "$library" | grep -c _GLOBAL__sub_I || true)"
same "soname" "libcapi-zol-tv.so.1" "$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')"
while read -r file; do
    found=$(readelf -hldW "$file" 2>/dev/null && nm -D --undefined-only "$file") || continue # a text
    while read -r count pattern; do
        same "${file#"$scratch"/}: lines with $pattern" "$count" "$(grep -cE "$pattern" <<<"$found" || true)"
    done <<'END'
1 Type: +DYN
1 ^ +GNU_RELRO
1 \(FLAGS\) .*BIND_NOW
1 ^ +GNU_STACK .* RW +0x
1 U __stack_chk_fail@
0 TEXTREL|RPATH
1 \(RUNPATH\) .*\[\$ORIGIN(/\.\./lib)?\]$
END
done < <(find "$scratch" -type f)

plugin=$(nm -DC --defined-only "$1/lib/libwatch_plugin.so")
same "symbols that a plugin with watches shares with others" "" "$(awk '$2 == "u" || /Topic|make/' <<<"$plugin")"

# Of the libraries only the log calls a function that every compiler checks; the others call none that could be.
log=$(find "$scratch" -name 'libdlog.so.*.*')
[ -z "$log" ] || same "$log: calls of the checked vsnprintf" 1 "$(nm -D "$log" | grep -c 'U __vsnprintf_chk@' || true)"
exit $failed
