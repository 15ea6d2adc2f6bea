#!/bin/bash
# The public headers: header_test.sh COMPILER SOURCE_DIR
# Each compiles alone under every standard a caller may use, and only the JSON header needs more than the library.
set -euo pipefail
compiler=$1
cd "$2/include"
failed=0

for standard in 11 14 17 20; do
    if ! "$compiler" -std=c++$standard -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fsyntax-only -I. \
        -x c++ ./*.h; then
        echo "FAILED: a header does not compile alone as C++$standard"
        failed=1
    fi
done
for header in *.h; do
    allowed=none
    [ "$header" = ZOLJson.h ] && allowed=rapidjson
    if "$compiler" -std=c++17 -I. -M -x c++ "$header" | grep -oE 'rapidjson|vconf\.h|dlog\.h' | grep -v $allowed; then
        echo "FAILED: $header includes the above"
        failed=1
    fi
done
exit $failed
