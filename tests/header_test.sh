#!/bin/bash
# The public headers: header_test.sh COMPILER SOURCE_DIR
# Each compiles alone under every standard a caller may use (the watches need C++17, and are tried with clang too, where
# there is one), and only the JSON header needs more than the library. That one follows a RapidJSON in another namespace.
set -euo pipefail
shopt -s extglob
compiler=$1
cd "$2/include"

compiles() { # STANDARD HEADER...
    if ! "$compiler" "-std=c++$1" -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fsyntax-only -I. -x c++ "${@:2}"; then
        echo "FAILED: a header does not compile alone with $compiler, C++$1"
        exit 1
    fi
}
for standard in 11 14; do compiles $standard !(ZOLWatch).h; done
for standard in 17 20; do compiles $standard ./*.h; done
if compiler=$(command -v clang++); then
    for standard in 17 20; do compiles $standard ZOLWatch.h; done
fi
compiler=$1
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
