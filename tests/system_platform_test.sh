#!/bin/bash
# Building for a platform that pkg-config knows, as docs/porting.md says: system_platform_test.sh SOURCE_DIR
# A platform made here plays the TV's: its handlers run on several threads, its record has another tag and a union, and
# its error codes are positive. Another project takes the library in, with what a customer builds over it. If the cross
# compiler and qemu are installed, that is done for armhf, and zolctl checks the platform.
# shellcheck disable=SC2016 # pkg-config has its own variables
set -euo pipefail
source_dir=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export TV_ROOT=$scratch/root TV_STORE=$scratch/store
fail() { echo "FAILED: $*" && exit 1; }

# ---- the TV's platform ----
mkdir -p "$TV_ROOT"/usr/{lib/pkgconfig,include/{vconf,dlog}}
for name in vconf dlog; do
    printf '%s\n' "prefix=/usr" "Name: $name" "Description: the TV's" "Version: 1" \
        'Libs: -L${prefix}/lib -l'$name "Cflags: -I\${prefix}/include/$name" >"$TV_ROOT/usr/lib/pkgconfig/$name.pc"
done
cat >"$TV_ROOT/usr/include/dlog/dlog.h" <<'END'
#pragma once
typedef enum { DLOG_ERROR = 6 } log_priority;
extern "C" int dlog_print(log_priority priority, const char* tag, const char* format, ...);
END
cat >"$TV_ROOT/usr/include/vconf/vconf.h" <<'END'
#pragma once
typedef struct tv_keynode {
    char* keyname;
    int type;
    union {
        int i;
        double d;
        char* s;
    } value;
} keynode_t;
typedef void (*vconf_callback_fn)(keynode_t* node, void* user_data);
extern "C" {
char* vconf_get_str(const char* key);
int vconf_set_str(const char* key, const char* value);
int vconf_get_int(const char* key, int* value);
int vconf_set_int(const char* key, int value);
int vconf_get_bool(const char* key, int* value);
int vconf_set_bool(const char* key, int value);
int vconf_notify_key_changed(const char* key, vconf_callback_fn handler, void* user_data);
int vconf_ignore_key_changed(const char* key, vconf_callback_fn handler);
}
END
cat >"$scratch/vconf.cpp" <<'END'
// All processes append their writes to one file; each subscription has a thread that reads on from where it began.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>
#include <vconf.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

enum Type { kString = 40, kInteger, kBoolean };
constexpr int kFailed = 1;

struct Header {
    size_t type, keySize, size;
};
struct Write {
    Header header{};
    std::string key, value;
};
struct LockedFile {
    LockedFile() { flock(fd, LOCK_EX); }
    ~LockedFile() { close(fd); }
    bool next(off_t& at, Write& write) const
    {
        if (pread(fd, &write.header, sizeof(Header), at) != sizeof(Header)) return false;
        const Header& header = write.header;
        std::string text(header.keySize + header.size, '\0');
        at += sizeof(Header) + pread(fd, &text[0], text.size(), at + sizeof(Header));
        write.key = text.substr(0, header.keySize);
        write.value = text.substr(header.keySize);
        return true;
    }
    const int fd = open(std::getenv("TV_STORE"), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
};

int put(const char* key, Type type, const void* value, size_t size)
{
    const Header header{type, std::strlen(key), size};
    std::string write(reinterpret_cast<const char*>(&header), sizeof header);
    write.append(key).append(static_cast<const char*>(value), size);
    return ::write(LockedFile().fd, write.data(), write.size()) == ssize_t(write.size()) ? 0 : kFailed;
}

bool find(const char* key, Type type, std::string& value)
{
    const LockedFile file;
    Write last, write;
    for (off_t at = 0; file.next(at, write);)
        if (write.key == key) last = write;
    value = last.value;
    return last.header.type == type;
}

int getNumber(const char* key, Type type, int* number)
{
    std::string value;
    if (!find(key, type, value)) return kFailed;
    std::memcpy(number, value.data(), sizeof *number);
    return 0;
}

void deliver(off_t at, std::string key, vconf_callback_fn handler, void* user_data, std::atomic<bool>& ended)
{
    for (Write write; !ended; usleep(1000)) {
        while (!ended && LockedFile().next(at, write)) {
            keynode_t node{&key[0], int(write.header.type), {}};
            if (write.header.type == kString)
                node.value.s = &write.value[0];
            else
                std::memcpy(&node.value.i, write.value.data(), sizeof node.value.i);
            if (write.key == key) handler(&node, user_data);
        }
    }
}

std::mutex lock;  // of the subscriptions
auto& subscriptions = *new std::map<std::pair<std::string, vconf_callback_fn>, std::shared_ptr<std::atomic<bool>>>;

char* vconf_get_str(const char* key)
{
    std::string value;
    return find(key, kString, value) ? strdup(value.c_str()) : nullptr;
}
int vconf_set_str(const char* key, const char* value) { return put(key, kString, value, std::strlen(value)); }
int vconf_get_int(const char* key, int* value) { return getNumber(key, kInteger, value); }
int vconf_set_int(const char* key, int value) { return put(key, kInteger, &value, sizeof value); }
int vconf_get_bool(const char* key, int* value) { return getNumber(key, kBoolean, value); }
int vconf_set_bool(const char* key, int value) { return put(key, kBoolean, &value, sizeof value); }

int vconf_notify_key_changed(const char* key, vconf_callback_fn handler, void* user_data)
{
    const std::lock_guard<std::mutex> guard(lock);
    const auto ended = std::make_shared<std::atomic<bool>>(false);
    if (!subscriptions.emplace(std::pair(key, handler), ended).second) return kFailed;
    const off_t end = lseek(LockedFile().fd, 0, SEEK_END);
    std::thread([=, name = std::string(key)] { deliver(end, name, handler, user_data, *ended); }).detach();
    return 0;
}
int vconf_ignore_key_changed(const char* key, vconf_callback_fn handler)
{
    const std::lock_guard<std::mutex> guard(lock);
    const auto found = subscriptions.find({key, handler});
    if (found == subscriptions.end()) return kFailed;
    *found->second = true;
    subscriptions.erase(found);
    return 0;
}
END
cat >"$scratch/dlog.cpp" <<'END'
#include <dlog.h>
int dlog_print(log_priority, const char*, const char*, ...) { return 0; }
END

# ---- the build ----
if command -v arm-linux-gnueabihf-g++ >/dev/null && command -v qemu-arm >/dev/null; then
    compiler=arm-linux-gnueabihf-g++
    targets=(settings_panel zolctl)
    settings=(-DCMAKE_TOOLCHAIN_FILE=toolchain.cmake)
else
    compiler=${CXX:-c++}
    targets=(settings_panel)
    settings=()
    export PKG_CONFIG_SYSROOT_DIR=$TV_ROOT PKG_CONFIG_PATH=$TV_ROOT/usr/lib/pkgconfig
fi
# What the page shows: the toolchain file, and how the headers get into the TV's root.
(cd "$scratch" && sed -n '/^```cmake/,/^```$/ { /^```/d; p }' "$source_dir/docs/porting.md" >toolchain.cmake)
eval "$(sed -n 's/^\$ \(cp .*TV_ROOT.*\)/\1/p' "$source_dir/docs/porting.md")"
for name in vconf dlog; do
    "$compiler" -std=c++17 -shared -fPIC "-I$TV_ROOT/usr/include/$name" "$scratch/$name.cpp" -pthread \
        -o "$TV_ROOT/usr/lib/lib$name.so"
done
cat >"$scratch/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(customer LANGUAGES CXX)
include(FetchContent)
FetchContent_Declare(capi-zol-tv SOURCE_DIR "$source_dir" OVERRIDE_FIND_PACKAGE)
add_subdirectory("$source_dir/examples" examples)
END
(cd "$scratch" && cmake -B build "${settings[@]}" -DZOL_PLATFORM=system -DZOL_BUILD_TOOLS=ON -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_FLAGS=-Weffc++ &&
    cmake --build build --parallel 2 --target "${targets[@]}") >"$scratch/log" 2>&1 ||
    fail "the library does not build: $(<"$scratch/log")"

library=$(find "$scratch/build" -name libcapi-zol-tv.so)
nm -D "$library" >"$scratch/symbols"
grep -q ' T .*VconfCallbackMethodEP10tv_keynodePv$' "$scratch/symbols" ||
    fail "the library does not export VconfCallbackMethod for the TV's record"
! find "$scratch/build" -name 'libvconf*' -o -name 'libdlog*' | grep . || fail "the desk platform was built as well"

# ---- the tool ----
[ ${#targets[@]} -gt 1 ] || exit 0
tool=$(find "$scratch/build" -path '*/bin/zolctl')
zolctl() { qemu-arm -L /usr/arm-linux-gnueabihf -E "LD_LIBRARY_PATH=$TV_ROOT/usr/lib" "$tool" "$@"; }
zolctl selftest --timeout 20 >"$scratch/log" 2>&1 || fail "zolctl selftest: $(<"$scratch/log")"
zolctl concurrent enable app.a
[ "$(zolctl concurrent list)" = app.a ] || fail "zolctl concurrent list"
[[ $(zolctl status) == *"target     not known on this platform"* ]] || fail "zolctl status: $(zolctl status)"
