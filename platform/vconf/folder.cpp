#include "folder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace vconf {
namespace {

constexpr char kVolatilePrefix[] = "volatile-";
constexpr std::size_t kBootIdSize = 36;

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value == nullptr ? "" : value;
}

fs::path absolute(const std::string& text, const char* variable)
{
    fs::path path(text);
    if (!path.is_absolute()) {
        throw std::runtime_error("cannot use folder " + text + ": " + variable + " must be an absolute path");
    }
    return path;
}

// A volatile store is never synced, so after a crash of the machine its files may be damaged, and its values are meant
// to be gone by then anyhow: each start of the machine gets a folder of its own.
std::string thisBoot()
{
    constexpr char kSource[] = "/proc/sys/kernel/random/boot_id";
    std::string id;
    std::ifstream(kSource) >> id;
    if (id.size() != kBootIdSize) {
        throw std::runtime_error(std::string("cannot tell this start of the machine from others: ") + kSource +
                                 " cannot be read");
    }
    return kVolatilePrefix + id;
}

void create(const fs::path& folder)
{
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        const int error = errno;
        throw std::runtime_error("cannot create folder " + folder.string() + ": " + std::strerror(error));
    }
}

bool othersMayWrite(const struct stat& status) { return (status.st_mode & (S_IWGRP | S_IWOTH)) != 0; }

// Follows the path as the kernel would and refuses a link that somebody else could have planted.
void refusePlantedLinks(const fs::path& folder)
{
    constexpr int kMostLinks = 40;
    int links = 0;
    std::deque<fs::path> rest(folder.begin(), folder.end());
    fs::path walked;
    while (!rest.empty()) {
        const fs::path next = walked / rest.front();
        rest.pop_front();
        if (!fs::is_symlink(fs::symlink_status(next))) {
            walked = next;
            continue;
        }
        struct stat parent {};
        if (stat(walked.c_str(), &parent) != 0 || othersMayWrite(parent) || ++links > kMostLinks) {
            throw std::runtime_error("refused folder " + folder.string() + ": " + next.string() +
                                     " is a link in a folder that others may write to; use the folder itself");
        }
        const fs::path target = fs::read_symlink(next);
        rest.insert(rest.begin(), target.begin(), target.end());
    }
}

void check(const fs::path& folder)
{
    refusePlantedLinks(folder);
    struct stat status {};
    if (stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        throw std::runtime_error("cannot use folder " + folder.string() + ": it is not a folder");
    }
    if (status.st_uid != geteuid()) {
        throw std::runtime_error("refused folder " + folder.string() + ": it belongs to another user (uid " +
                                 std::to_string(status.st_uid) + ")");
    }
    if (othersMayWrite(status)) {
        throw std::runtime_error("refused folder " + folder.string() +
                                 ": others may write to it; run chmod go-w on it");
    }
}

// The folder under a place that the environment or the system gives. That place must exist; only what a desktop may
// lack in a home or state folder is created on the way.
fs::path applicationFolder(Lifetime lifetime)
{
    const std::string both = environment("ZOL_VCONF_DIR");
    if (!both.empty()) {
        return absolute(both, "ZOL_VCONF_DIR");
    }
    if (lifetime == Lifetime::Volatile) {
        const std::string runtime = environment("XDG_RUNTIME_DIR");
        return runtime.empty() ? fs::path("/dev/shm/zol-tv-" + std::to_string(geteuid()))
                               : absolute(runtime, "XDG_RUNTIME_DIR") / "zol-tv";
    }
    const std::string state = environment("XDG_STATE_HOME");
    if (!state.empty()) {
        const fs::path parent = absolute(state, "XDG_STATE_HOME");
        create(parent);
        return parent / "zol-tv";
    }
    const std::string home = environment("HOME");
    if (home.empty()) {
        throw std::runtime_error("cannot find a folder: set HOME, XDG_STATE_HOME or ZOL_VCONF_DIR");
    }
    const fs::path local = absolute(home, "HOME") / ".local";
    create(local);
    create(local / "state");
    return local / "state" / "zol-tv";
}

// Removes the files of the store alone, and a folder only when nothing else is in it.
void removeEarlierBoots(const fs::path& parent, const fs::path& current)
{
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(parent, ignored)) {
        const fs::path& folder = entry.path();
        const std::string name = folder.filename().string();
        if (folder != current && name.rfind(kVolatilePrefix, 0) == 0 &&
            name.size() == std::strlen(kVolatilePrefix) + kBootIdSize &&
            fs::is_directory(entry.symlink_status(ignored))) {
            for (const char* file : {"data.mdb", "lock.mdb", "signal"}) {
                fs::remove(folder / file, ignored);
            }
            fs::remove(folder, ignored);
        }
    }
}

}  // namespace

std::string prepareFolder(Lifetime lifetime)
{
    const fs::path parent = applicationFolder(lifetime);
    refusePlantedLinks(parent);
    create(parent);
    check(parent);

    const fs::path folder = parent / (lifetime == Lifetime::Persistent ? "persistent" : thisBoot());
    create(folder);
    check(folder);
    if (lifetime == Lifetime::Volatile) {
        removeEarlierBoots(parent, folder);
    }
    return folder.string();
}

}  // namespace vconf
