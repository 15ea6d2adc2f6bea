#!/bin/bash
# The installed files as a customer gets them: package_test.sh PACKAGES_DIR|BUILD_DIR SOURCE_DIR
# dpkg installs packages into a root of their own, where it takes the packages of this machine for installed and so checks
# what they depend on. A build is installed into a folder, which is then moved. There the examples are built by pkg-config
# and by CMake, and are run with nothing said about where the libraries are.
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

cp -r "$source_dir/examples" . && mkdir by_pkg_config
[[ $(<"$source_dir/README.md") == *"$(<examples/watch_language.cpp)"* ]] || fail "README.md shows another first program"

# An app on a main loop shows what another process writes without pause, and then ends cleanly.
shows_living_room() {
    grep -qx "on, one, en-GB, org.example.alpha, GB, volume 30, apps: org.example.alpha" shown &&
        grep -qx "installed org.example.weather" shown
}
test_main_loop() {
    local app writer tries
    : >shown
    run exec "$1" >shown &
    app=$!
    touch writing
    while [ -e writing ] && run zolctl load examples/living-room.json; do :; done >log 2>&1 &
    writer=$!
    for ((tries = 0; tries < 200; ++tries)); do
        shows_living_room && break
        sleep 0.05
    done
    kill "$app"
    wait "$app" || fail "$1: exit code $?"
    rm writing
    wait "$writer" || fail "$(<log)"
    shows_living_room || fail "$1 shows: $(tail -n 5 shown)"
    same "$1: last line" "$(tail -n 1 shown)" ended
}

run_examples() {
    run zolctl set ZOLLanguage en-GB
    same "$1: watch_language" "$(run "$1"/watch_language)" "en-GB, then de-DE"
    run zolctl concurrent enable org.example.alpha org.example.beta
    same "$1: concurrent_apps" "$(run "$1"/concurrent_apps)" $'org.example.alpha\norg.example.beta'
    same "$1: a test over a store" "$(run "$1"/settings_panel_test)" passed
    same "$1: a test over a mock" "$(run "$1"/settings_panel_mock_test)" passed
    [ ! -d var ] || return 0 # there neither bash nor GLib is
    same "$1: a test with zolctl" "$(run bash examples/settings_panel_test.sh "$1"/settings_panel)" passed
    ! pkg-config --exists glib-2.0 || test_main_loop "$1"/glib_main_loop
}
for file in examples/*.cpp; do
    modules=capi-zol-tv
    libraries=capi-zol-tv
    case $file in
        *mock*) modules+=" vconf dlog" ;;
        *glib*)
            pkg-config --exists glib-2.0 || continue
            modules+=" glib-2.0"
            libraries=$modules
            ;;
    esac
    # shellcheck disable=SC2046,SC2086 # the flags and modules are lists of words
    "${CXX:-c++}" -std=c++17 "$file" $(pkg-config --cflags $modules) $(pkg-config --libs $libraries) -o "by_pkg_config/$(basename "$file" .cpp)"
done
run_examples by_pkg_config
{ cmake -S examples -B by_cmake -DCMAKE_PREFIX_PATH="$root/usr" && cmake --build by_cmake; } >log 2>&1 || fail "$(<log)"
grep -q "capi-zol-tv_DIR:PATH=$libdir" by_cmake/CMakeCache.txt || fail "CMake found another package"
run_examples by_cmake
run zolctl selftest >log || fail "$(<log)"
echo "What is installed works, and the examples build and run over it."
