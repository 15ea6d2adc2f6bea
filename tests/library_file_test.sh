#!/bin/bash
# The built files as they are installed: library_file_test.sh BUILD_DIR SOURCE_DIR
# Each is hardened. The library exports exactly what src/exports.txt lists, needs nothing but the platform and the C and
# C++ runtime, and has its names. Where it is built makes no difference.
set -euo pipefail
export LC_ALL=C
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0

same_lines() { diff <(echo "$2") <(echo "$3") || { echo "FAILED: $1 (< expected, > found)" && failed=1; }; }
same() { same_lines "$1" "$(sort <<<"$2")" "$(sort <<<"$3")"; }

cmake --install "$1" --prefix "$scratch" >/dev/null
library=$(find "$scratch" -name 'libcapi-zol-tv.so.*.*')
same_lines "exported symbols" "$(grep -v '^#' "$2/src/exports.txt")" \
    "$(nm -D --defined-only --format=posix "$library" | cut -d' ' -f1 | sed -E 's/(VconfCallbackMethodEP)[0-9].*Pv$/\1*Pv/')"

platform=$(printf '%s\n' dlog_print vconf_{get,set}_{bool,int,str} vconf_{ignore,notify}_key_changed)
# The runtime's symbols have versions; the weak ones are for the toolchain.
same "symbols needed from the platform" "$platform" \
    "$(nm -D --undefined-only --format=posix "$library" | awk '$1 !~ /@/ && $2 == "U" { print $1 }')"

# The others are bound inside the library, whatever functions a program has.
same "functions that a program's own may replace" VconfCallbackMethod \
    "$(readelf -rW "$library" | grep -oE 'ZOLSystemData[A-Za-z]+|VconfCallback(Method|GeneratorC)|[gs]et(String|Int|Bool)P|toString' | sort -u)"

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

cmake --install "$1" --component runtime --prefix "$scratch/runtime" >/dev/null
find "$scratch/runtime" -name libcapi-zol-tv.so | grep -q . || { echo "FAILED: the runtime lacks libcapi-zol-tv.so" && failed=1; }

# stripped FOLDER: builds what is shipped from the sources in the folder, and strips it.
stripped() {
    cmake -S "$1" -B "$1-build" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DZOL_BUILD_TOOLS=OFF
    cmake --build "$1-build" --parallel 2
    cmake --install "$1-build" --strip --component runtime --prefix "$1-stripped"
}
for folder in "$scratch"/here "$scratch"/somewhere/else; do
    mkdir -p "$folder"
    cp -r "$2"/{CMakeLists.txt,include,src,platform,packaging} "$folder"
    stripped "$folder" >"$scratch/log" 2>&1 || { cat "$scratch/log" && exit 1; }
done
cmp "$scratch"/{here,somewhere/else}-stripped/lib/libcapi-zol-tv.so || { echo "FAILED: two builds differ" && failed=1; }
exit $failed
