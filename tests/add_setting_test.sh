#!/bin/bash
# How to add a setting, as CONTRIBUTING.md tells: add_setting_test.sh SOURCE_DIR
# What it says is done to a copy of the sources, which then builds and passes the tests of the settings and of the tool.
set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cp -r "$1"/{CMakeLists.txt,include,src,platform,tools,tests,packaging,examples} "$scratch"
cd "$scratch"
{ patch -p0 --fuzz 0 <"$1/docs/adding-a-setting.patch" &&
    cmake -S . -B build -DCMAKE_BUILD_TYPE=Debug && cmake --build build --parallel 2 --target zolctl system_data_test notify_test &&
    build/bin/system_data_test && build/bin/notify_test --gtest_filter='*EveryTopic*' &&
    bash tests/zolctl_test.sh build/bin/zolctl .; } >log 2>&1 ||
    { cat log && echo "FAILED: a setting cannot be added as docs/adding-a-setting.patch does it" && exit 1; }
