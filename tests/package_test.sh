#!/bin/bash
# The installed files as a customer gets them: package_test.sh PACKAGES_DIR|BUILD_DIR SOURCE_DIR
# dpkg installs packages into a root of their own, where it takes the packages of this machine for installed and so checks
# what they depend on. A build is installed into a folder, which is then moved. There the examples are built as the
# documentation shows them, by pkg-config and by CMake, and are run with nothing said about where the libraries are.
set -euo pipefail
from=$(realpath "$1")
source_dir=$(realpath "$2")
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
cd "$root" && unset LD_LIBRARY_PATH

fail() { echo "FAILED: $*" && exit 1; }
same() { [ "$2" = "$3" ] || fail "$1: got '$2', not '$3'"; }

if [ -f "$from/CMakeCache.txt" ]; then
    cmake --install "$from" --prefix "$root/first" >log && mv first usr
    run() { ZOL_VCONF_DIR=$root/store PATH=$root/usr/bin:$PATH "$@"; }
else
    mkdir -p var/lib/dpkg/{info,updates} sbin && cp /var/lib/dpkg/status var/lib/dpkg/
    # The packages' scripts run without chroot, which would need a whole system; they call ldconfig for their own root.
    install /dev/stdin sbin/ldconfig <<<$'#!/bin/sh\nexec /sbin/ldconfig -r "$DPKG_ROOT" -C /ld.so.cache'
    PATH=$root/sbin:$PATH dpkg --root="$root" --force-not-root --force-script-chrootless --no-triggers \
        --install "$from"/*.deb >log 2>&1 || fail "dpkg: $(<log)"
    # The programs run with that root as theirs, over the C and C++ libraries of this machine.
    ldd usr/bin/zolctl usr/lib/*/lib*.so.* | grep -oE '/[^ ]+ \(' | cut -d' ' -f1 | sort -u |
        xargs cp -L --parents -t . /proc/sys/kernel/random/boot_id
    unshare=() && [ "$(id -u)" = 0 ] || unshare=(unshare -r)
    run() { ZOL_VCONF_DIR=/store "${unshare[@]}" chroot "$root" "$@"; }
fi
libdir=$(dirname "$(find "$root/usr" -name libcapi-zol-tv.so)")
export PKG_CONFIG_PATH=$libdir/pkgconfig ZOL_DLOG=off
mkdir -m 700 store tmp

grep -qF "## [$(pkg-config --modversion capi-zol-tv)]" "$source_dir/CHANGELOG.md" || fail "CHANGELOG.md lacks this version"

# What the documentation shows under the name of an example is that example.
mkdir examples by_pkg_config
awk '/^`examples\/.*`:$/ { gsub(/[`:]/, ""); file = $0 }
     /^```/ { if (inside) file = ""; inside = !inside; next } inside && file { print > file }' \
    "$source_dir"/{README,docs/testing-your-app}.md
diff -r examples "$source_dir/examples" >log || same "examples" "$(grep -v '^Only in .*: \(CMakeLists.txt\|living-room.json\|settings_panel.cpp\)$' log)" ""
cp "$source_dir"/examples/{CMakeLists.txt,settings_panel.cpp} examples/

run_examples() {
    run zolctl set ZOLLanguage en-GB
    same "$1: watch_language" "$(run "$1"/watch_language)" "en-GB, then de-DE"
    run zolctl concurrent enable org.example.alpha org.example.beta
    same "$1: concurrent_apps" "$(run "$1"/concurrent_apps)" $'org.example.alpha\norg.example.beta'
    same "$1: a test over a store" "$(run "$1"/settings_panel_test)" passed
    same "$1: a test over a mock" "$(run "$1"/settings_panel_mock_test)" passed
    [ -d var ] || same "$1: a test with zolctl" "$(run bash examples/settings_panel_test.sh "$1"/settings_panel)" passed
}
for file in examples/*.cpp; do
    modules=capi-zol-tv
    [[ $file != *mock* ]] || modules+=" vconf dlog"
    # shellcheck disable=SC2046,SC2086 # the flags and modules are lists of words
    "${CXX:-c++}" -std=c++17 "$file" $(pkg-config --cflags $modules) $(pkg-config --libs capi-zol-tv) -o "by_pkg_config/$(basename "$file" .cpp)"
done
run_examples by_pkg_config
{ cmake -S examples -B by_cmake -DCMAKE_PREFIX_PATH="$root/usr" && cmake --build by_cmake; } >log 2>&1 || fail "$(<log)"
grep -q "capi-zol-tv_DIR:PATH=$libdir" by_cmake/CMakeCache.txt || fail "CMake found another package"
run_examples by_cmake
run zolctl selftest >log || fail "$(<log)"
echo "What is installed works, and the examples build and run over it."
