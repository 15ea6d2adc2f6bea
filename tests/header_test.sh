#!/bin/bash
# The public headers: header_test.sh COMPILER SOURCE_DIR
# Each compiles alone under every standard a caller may use (the watches need C++17), also with clang. Only the JSON header
# needs RapidJSON, also one in another namespace. Types of another layout give one clear error.
set -euo pipefail
shopt -s extglob
cd "$2/include"
fail() { echo "FAILED: $*" && exit 1; }

alone=(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fsyntax-only -I. -x c++)
for standard in 11 14 17 20; do
    mapfile -t headers < <(ls !(ZOLWatch).h; [ $standard -lt 17 ] || echo ZOLWatch.h)
    for compiler in "$1" $(command -v clang++); do
        "$compiler" -std=c++$standard "${alone[@]}" "${headers[@]}" || fail "a header does not compile alone with $compiler, C++$standard"
    done
done
COMPILER=$1

# README.md's table of settings is the catalogue.
catalogue=$("$COMPILER" -E -P -I. -x c++ - <<'END' | tr ';' '\n' | awk 'NF {
    type["STRING"] = "string"; type["INT"] = "integer"; type["BOOL"] = "boolean"
    access = ""
    for (i = 3; i < NF; ++i) {
        sub(/READ_.*/, "READ", $i)
        access = access (i == 3 ? "" : ", ") tolower($i)
    }
    gsub(/"/, "`", $NF)
    printf "| `%s` | %s | %s | %s |\n", $1, type[$2], access, $NF
}'
#include "ZOLSettings.h"
#define ROW(name, type, read, write, watch, key, description) name type read write watch key;
ZOL_SETTINGS(ROW)
END
)
diff <(grep -E '^\| `[A-Za-z]+` \| (string|integer|boolean) ' ../README.md) <(echo "$catalogue") || fail "README.md's table (<) is not the catalogue (>)"

compile() { "$1" -std=c++17 -I. -fsyntax-only -x c++ "${@:2}"; }
includes() { "$1" -std=c++17 -I. -M -x c++ "${@:2}"; }
! includes "$1" !(ZOLJson).h | grep -E 'rapidjson|vconf\.h|dlog\.h' || fail "a header includes the above"
! includes "$1" ZOLJson.h | grep -E 'vconf\.h|dlog\.h' || fail "a header includes the above"
compile "$1" ZOLJson.h -DRAPIDJSON_NAMESPACE=own -D'RAPIDJSON_NAMESPACE_BEGIN=namespace own {' -DRAPIDJSON_NAMESPACE_END='}' ||
    fail "the JSON header needs RapidJSON's own namespace"

# one_error TEXT ARGUMENT...: compiling the flat functions with the arguments gives one error, which says that text.
one_error() {
    local errors
    errors=$(compile "$COMPILER" capi-zol-tv.h "${@:2}" 2>&1 | grep error: || true)
    [[ $errors == *"$1"* && $errors != *$'\n'* ]] || fail "${*:2} gives: $errors"
}
one_error "std::string of C++11" -D_GLIBCXX_USE_CXX11_ABI=0
one_error "without -D_GLIBCXX_DEBUG" -D_GLIBCXX_DEBUG

# A platform may have its headers in a folder, and any tag for its record.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/vconf"
echo '#pragma once
typedef struct _keynode_t { const char* keyname; } keynode_t;' >"$scratch/vconf/vconf.h"
printf '#include <%s>\n' vconf/vconf.h VconfCallbackGenerator.h >"$scratch/program.cpp"
compile "$COMPILER" -I"$scratch" "$scratch/program.cpp" || fail "another tag of keynode_t does not compile"
