#!/bin/bash
# The Debian packages as a customer gets them: package_test.sh PACKAGES_DIR SOURCE_DIR
# dpkg installs them into a root of their own, where it takes the packages of this machine for installed and so checks
# what they depend on. There the examples are built as the documentation shows them, by pkg-config and by CMake, and are run.
set -euo pipefail
packages=$(realpath "$1")
source_dir=$(realpath "$2")
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
cd "$root"

fail() { echo "FAILED: $*" && exit 1; }
same() { [ "$2" = "$3" ] || fail "$1: got '$2', not '$3'"; }

mkdir -p var/lib/dpkg/info var/lib/dpkg/updates sbin
cp /var/lib/dpkg/status var/lib/dpkg/
# The packages' scripts run without chroot, which would need a whole system; they call ldconfig for their own root.
printf '#!/bin/sh\nexec /sbin/ldconfig -r "$DPKG_ROOT" -C /ld.so.cache\n' >sbin/ldconfig
chmod +x sbin/ldconfig
PATH=$root/sbin:$PATH dpkg --root="$root" --force-not-root --force-script-chrootless --no-triggers \
    --install "$packages"/*.deb >log 2>&1 || fail "dpkg: $(<log)"

libdir=$(dirname "$(find "$root/usr" -name libcapi-zol-tv.so)")
export PATH=$root/usr/bin:$PATH LD_LIBRARY_PATH=$libdir PKG_CONFIG_PATH=$libdir/pkgconfig
export ZOL_VCONF_DIR=$root/store ZOL_DLOG=off
mkdir "$ZOL_VCONF_DIR"

version=$(pkg-config --modversion capi-zol-tv)
grep -qF "## [$version]" "$source_dir/CHANGELOG.md" || fail "CHANGELOG.md has no section for $version"

# What the documentation shows under the name of an example is that example.
mkdir examples
awk '/^`examples\/.*`:$/ { gsub(/[`:]/, ""); file = $0 }
     /^```/ { if (inside) file = ""; inside = !inside; next } inside && file { print > file }' \
    "$source_dir"/{README,docs/testing-your-app}.md
diff -r examples "$source_dir/examples" >log || same "examples" "$(grep -v '^Only in .*: \(CMakeLists.txt\|living-room.json\|settings_panel.cpp\)$' log)" ""
cp "$source_dir"/examples/{CMakeLists.txt,settings_panel.cpp} examples/

run_examples() {
    zolctl set ZOLLanguage en-GB
    same "$1: watch_language" "$("$1"/watch_language)" "en-GB, then de-DE"
    zolctl concurrent enable org.example.alpha org.example.beta
    same "$1: concurrent_apps" "$("$1"/concurrent_apps)" $'org.example.alpha\norg.example.beta'
    same "$1: a test over a store" "$("$1"/settings_panel_test)" passed
    same "$1: a test over a mock" "$("$1"/settings_panel_mock_test)" passed
    same "$1: a test with zolctl" "$(bash examples/settings_panel_test.sh "$1"/settings_panel)" passed
}
mkdir by_pkg_config
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
zolctl selftest >log || fail "$(<log)"
echo "The packages install, and the examples build and run over them."
