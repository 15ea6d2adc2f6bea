#!/bin/bash
# The Debian packages as a customer gets them: package_test.sh PACKAGES_DIR SOURCE_DIR
# dpkg installs them into a root of their own, where it takes the packages of this machine for installed and so checks
# what they depend on. There the examples are built as README.md shows them, by pkg-config and by CMake, and are run.
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

# The programs in README.md, in their order, are the examples.
mkdir examples
number=0
for name in watch_language concurrent_apps; do
    awk -v want=$((++number)) '/^```/ { inside = /^```cpp/; count += inside; next } inside && count == want' \
        "$source_dir/README.md" >examples/$name.cpp
    diff examples/$name.cpp "$source_dir/examples/$name.cpp" || fail "README.md shows another $name.cpp"
done
cp "$source_dir/examples/CMakeLists.txt" examples/

run_examples() {
    zolctl set ZOLLanguage en-GB
    same "$1: watch_language" "$("$1"/watch_language)" "en-GB, then de-DE"
    zolctl concurrent enable org.example.alpha org.example.beta
    same "$1: concurrent_apps" "$("$1"/concurrent_apps)" $'org.example.alpha\norg.example.beta'
}
mkdir by_pkg_config
for name in watch_language concurrent_apps; do
    # shellcheck disable=SC2046 # the flags are a list of words
    "${CXX:-c++}" -std=c++17 examples/$name.cpp $(pkg-config --cflags --libs capi-zol-tv) -o by_pkg_config/$name
done
run_examples by_pkg_config
{ cmake -S examples -B by_cmake -DCMAKE_PREFIX_PATH="$root/usr" && cmake --build by_cmake; } >log 2>&1 || fail "$(<log)"
grep -q "capi-zol-tv_DIR:PATH=$libdir" by_cmake/CMakeCache.txt || fail "CMake found another package"
run_examples by_cmake
zolctl selftest >log || fail "$(<log)"
echo "The packages install, and the examples build and run over them."
