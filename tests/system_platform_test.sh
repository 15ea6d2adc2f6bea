#!/bin/bash
# Building for a platform that pkg-config knows: system_platform_test.sh SOURCE_DIR BUILD_DIR
# The desk platform, installed from BUILD_DIR into a scratch prefix, plays the TV's, and another project takes the
# library in, with what a customer builds over it and with warnings of its own, which are no errors.
set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix

cmake --install "$2" --component desk --prefix "$prefix" >"$scratch/log"
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name vconf.pc)")
export PKG_CONFIG_PATH
sed -i 's/struct keynode_t/struct tv_keynode/' "$(find "$prefix" -name vconf.h)" # a TV's record may have any tag
cat >"$scratch/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(customer LANGUAGES CXX)
include(FetchContent)
FetchContent_Declare(capi-zol-tv SOURCE_DIR "$1" OVERRIDE_FIND_PACKAGE)
add_subdirectory("$1/examples" examples)
END
fail() { echo "FAILED: $*" && exit 1; }
{ cmake -S "$scratch" -B "$scratch/build" -DZOL_PLATFORM=system -DCMAKE_CXX_FLAGS=-Weffc++ && cmake --build "$scratch/build" --parallel 2; } >"$scratch/log" 2>&1 ||
    fail "the library does not build: $(<"$scratch/log")"
library=$(find "$scratch/build" -name libcapi-zol-tv.so)
grep -q ' T .*VconfCallbackMethodEP10tv_keynodePv$' <<<"$(nm -D "$library")" ||
    fail "the library does not export VconfCallbackMethod for the prefix's record"
libraries=$(ldd "$library")
[ "$(grep -cE "lib(vconf|dlog).so.1 => $prefix/" <<<"$libraries")" = 2 ] ||
    fail "the library does not link the prefix's platform: $libraries"
! find "$scratch/build" -name 'libvconf*' -o -name 'libdlog*' | grep . || fail "the desk platform was built as well"
