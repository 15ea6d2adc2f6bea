#!/bin/bash
# The public headers: header_test.sh COMPILER SOURCE_DIR
# Each compiles alone under every standard a caller may use (the watches need C++17), also with clang. Only the JSON header
# needs RapidJSON, also one in another namespace. What a header cannot work with gives one clear error.
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

# README.md's table of settings is the catalogue.
catalogue=$("$1" -E -P -I. -x c++ - <<'END' | tr ';' '\n' | awk 'NF {
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

# one_error COMPILER HEADER FLAG TEXT: compiling the header with the flag gives one error, which contains the text.
one_error() {
    local errors
    errors=$(compile "$1" "$2" "$3" 2>&1 | grep error: || true)
    [[ $errors == *"$4"* && $errors != *$'\n'* ]] || fail "$2 with $3 gives: $errors"
}
one_error "$1" capi-zol-tv.h -D_GLIBCXX_USE_CXX11_ABI=0 "std::string of C++11"
one_error "$1" capi-zol-tv.h -D_GLIBCXX_DEBUG "without -D_GLIBCXX_DEBUG"
one_error "$1" ZOLWatch.h -fno-exceptions "needs exceptions"
one_error "$1" ZOLWatch.h -std=c++14 "needs C++17"

# A platform may have its headers in a folder, and any tag for its record.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/vconf"
echo '#pragma once
typedef struct _keynode_t { const char* keyname; } keynode_t;' >"$scratch/vconf/vconf.h"
printf '#include <%s>\n' vconf/vconf.h VconfCallbackGenerator.h >"$scratch/program.cpp"
compile "$1" -I"$scratch" "$scratch/program.cpp" || fail "another tag of keynode_t does not compile"
