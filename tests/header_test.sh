#!/bin/bash
# The public headers: header_test.sh COMPILER SOURCE_DIR
# Each compiles alone under every standard a caller may use, and only the JSON header needs more than the library. That
# one follows a RapidJSON in another namespace.
set -euo pipefail
shopt -s extglob
compiler=$1
cd "$2/include"

if ! printf '%s\n' 11 14 17 20 | xargs -P 4 -I STANDARD "$compiler" -std=c++STANDARD -Wall -Wextra -Wpedantic -Wshadow \
    -Wconversion -Werror -fsyntax-only -I. -x c++ ./*.h; then
    echo "FAILED: a header does not compile alone"
    exit 1
fi
includes() { "$compiler" -std=c++17 -I. -M -x c++ "$@"; }
if includes !(ZOLJson).h | grep -E 'rapidjson|vconf\.h|dlog\.h' || includes ZOLJson.h | grep -E 'vconf\.h|dlog\.h'; then
    echo "FAILED: a header includes the above"
    exit 1
fi
if ! "$compiler" -std=c++17 -I. -fsyntax-only -x c++ ZOLJson.h -DRAPIDJSON_NAMESPACE=own -D'RAPIDJSON_NAMESPACE_BEGIN=namespace own {' \
    -DRAPIDJSON_NAMESPACE_END='}'; then
    echo "FAILED: the JSON header needs RapidJSON's own namespace"
    exit 1
fi
