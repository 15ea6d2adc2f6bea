#include "folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace vconf {
namespace {

constexpr mode_t kOfOthers = S_IRWXG | S_IRWXO;

[[noreturn]] void fail(const std::string& what, const fs::path& path, const std::string& why)
{
    throw std::runtime_error(what + path.string() + ": " + why);
}

std::string environment(const char* name)
{
    const char* value = secure_getenv(name);
    return value == nullptr ? "" : value;
}

fs::path absolute(const std::string& text, const char* variable)
{
    fs::path path(text);
    if (!path.is_absolute()) {
        fail("cannot use folder ", path, variable + std::string(" must be an absolute path"));
    }
    return path;
}

// A volatile store is never synced, so a crash of the machine may damage it: each start of the machine has its own
// folder. Older ones stay, since a container may have another boot id and use the same place.
std::string thisBoot()
{
    constexpr char kSource[] = "/proc/sys/kernel/random/boot_id";
    std::string id;
    std::ifstream(kSource) >> id;
    if (id.size() != 36) {  // a UUID
        fail("cannot tell this start of the machine from others: cannot read ", kSource, "mount /proc");
    }
    return "volatile-" + id;
}

void create(const fs::path& folder)
{
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        fail("cannot create folder ", folder, std::strerror(errno));
    }
}

// A link is as good as its owner: one that another user has planted leads where that user wants.
void check(const fs::path& folder, mode_t refused, const std::string& advice)
{
    struct stat link {};
    struct stat status {};
    if (lstat(folder.c_str(), &link) != 0 || stat(folder.c_str(), &status) != 0) {
        fail("cannot use folder ", folder, std::strerror(errno));
    }
    if (!S_ISDIR(status.st_mode)) {
        fail("cannot use folder ", folder, "it is not a folder");
    }
    if (link.st_uid != geteuid() || status.st_uid != geteuid()) {
        fail("refused folder ", folder, "it belongs to another user; set ZOL_VCONF_DIR to a folder of your own");
    }
    if ((status.st_mode & refused) != 0) {
        fail("refused folder ", folder, "others may use it; " + advice);
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
        const std::string user = std::to_string(geteuid());
        std::string runtime = environment("XDG_RUNTIME_DIR");
        if (const std::string own = "/run/user/" + user; runtime.empty() && access(own.c_str(), W_OK) == 0) {
            runtime = own;  // su and services do not set the variable
        }
        return runtime.empty() ? fs::path("/dev/shm/zol-tv-" + user) : absolute(runtime, "XDG_RUNTIME_DIR") / "zol-tv";
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

// A process has its record locks on a file taken away when it closes any descriptor of it, so this is only for files
// that it does not use yet.
void reserve(const fs::path& file, off_t size)
{
    const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        fail("cannot open ", file, std::strerror(errno));
    }
    struct stat status {};
    int error = 0;
    if (fstat(fd, &status) == 0 && status.st_blocks * 512 < size) {
        do {
            error = fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, size) == 0 ? 0 : errno;
        } while (error == EINTR);
    }
    close(fd);
    if (error == ENOSPC || error == EDQUOT || error == EFBIG) {  // with any other, the file system just cannot do it
        fail("cannot make room for ", file, std::strerror(error) + std::string("; free some space there"));
    }
}

}  // namespace

std::string findFolder(Lifetime lifetime)
{
    const std::string ownFolder = "run chmod 700 on it";
    const bool given = !environment("ZOL_VCONF_DIR").empty();
    const fs::path parent = applicationFolder(lifetime);
    create(parent);
    check(parent, S_IWGRP | S_IWOTH, given ? "set ZOL_VCONF_DIR to a folder of your own" : ownFolder);
    fs::path folder = parent / (lifetime == Lifetime::Persistent ? "persistent" : thisBoot());
    create(folder);
    check(folder, kOfOthers, ownFolder);  // who can look into it could watch when its files are written to
    return folder;
}

void prepareFiles(const std::string& folder, off_t dataSize, off_t lockSize)
{
    const fs::path data = fs::path(folder) / "data.mdb";
    const fs::path lock = fs::path(folder) / "lock.mdb";
    const fs::path signal = fs::path(folder) / "signal";
    for (const fs::path& file : {data, lock, signal}) {
        struct stat status {};
        if (lstat(file.c_str(), &status) != 0 && errno == ENOENT) {
            continue;
        }
        // Somebody else may have put it there, or have it open, since before the folder was closed to others.
        const bool mine = S_ISREG(status.st_mode) && status.st_uid == geteuid() && status.st_nlink == 1;
        if (!mine || (status.st_mode & ALLPERMS) != (S_IRUSR | S_IWUSR)) {
            fail("refused ", file,
                 mine ? "its mode is not 600; run chmod 600 on it, if nobody else can have changed it"
                      : "it must be a regular file of your own, not hard-linked; remove the folder to start from "
                        "scratch");
        }
    }
    // The signal file comes last when a store is made, and every write comes after it.
    if (fs::exists(signal) && (!fs::exists(data) || fs::file_size(data) == 0)) {
        fail("cannot use ", data, "it has been removed or emptied; remove the folder to start from scratch");
    }
    reserve(lock, lockSize);
    reserve(data, dataSize);
}

void occupyStandardFiles()
{
    int fd = -1;
    do {
        fd = open("/", O_PATH | O_CLOEXEC);  // reading and writing it fail, as before
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        close(fd);
    }
}

}  // namespace vconf
