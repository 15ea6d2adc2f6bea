#!/bin/bash
# How to add a setting, as CONTRIBUTING.md tells: add_setting_test.sh SOURCE_DIR
# What it says is done to a copy of the sources, in a folder whose name has a space. It then builds, shows the demo, and
# passes the tests of the settings and of the tool.
set -euo pipefail
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

mkdir "$scratch/a copy" && cd "$scratch/a copy"
cp -r "$1"/{CMakeLists.txt,CMakePresets.json,README.md,include,src,platform,tools,tests,packaging,examples,scripts} .
sed -i 's/"RelWithDebInfo"/"Debug", "CMAKE_CXX_FLAGS_DEBUG": "-O0"/' CMakePresets.json # which builds sooner
{ patch -p0 --fuzz 0 <"$1/docs/adding-a-setting.patch" && scripts/demo &&
    cmake --build build/default --target system_data_test notify_test &&
    build/default/bin/system_data_test && build/default/bin/notify_test --gtest_filter='*EveryTopic*' &&
    env -u ZOL_OTHER_ZOLCTL bash tests/zolctl_test.sh build/default/bin/zolctl .; } >log 2>&1 ||
    { cat log && echo "FAILED: a setting cannot be added as docs/adding-a-setting.patch does it" && exit 1; }
