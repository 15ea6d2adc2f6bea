#include "folder.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
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

// A volatile store is never flushed, so a crash of the machine may damage it. Therefore each boot has a folder of its
// own. Older ones stay, because a container may have another boot id and use the same place.
std::string thisBoot()
{
    constexpr char kSource[] = "/proc/sys/kernel/random/boot_id";
    std::string id;
    std::ifstream(kSource) >> id;
    if (id.size() != 36) {  // a UUID
        fail("cannot name the folder of the volatile store: cannot read ", kSource, "mount /proc");
    }
    return "volatile-" + id;
}

std::string adviceOn(int error, const fs::path& path)
{
    switch (error) {
        case EROFS:
            return "; set ZOL_VCONF_DIR to a copy of the folder where files can be written";
        case ENOENT:
            return "; create " + path.parent_path().string();
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return "; free some space there";
        default:
            return "";
    }
}

[[noreturn]] void failWith(int error, const std::string& what, const fs::path& path)
{
    fail(what, path, std::strerror(error) + adviceOn(error, path));
}

std::string nameOf(uid_t user)
{
    std::array<char, 4096> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found);
    return found == nullptr ? std::to_string(user) : found->pw_name;
}

// With mode 0700 whatever the umask is.
void create(const fs::path& folder)
{
    if (mkdir(folder.c_str(), S_IRWXU) == 0) {
        (void)chmod(folder.c_str(), S_IRWXU);
    } else if (errno != EEXIST) {
        failWith(errno, "cannot create folder ", folder);
    }
}

// A link that another user planted leads where that user wants, so its owner is checked, too.
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
    const uid_t owner = link.st_uid != geteuid() ? link.st_uid : status.st_uid;
    if (owner != geteuid()) {
        fail("refused folder ", folder,
             "it belongs to " + nameOf(owner) + "; run this program as " + nameOf(owner) +
                 ", or set ZOL_VCONF_DIR to a folder of your own");
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

// Closing any descriptor of a file drops all of the process's record locks on it. Call this before LMDB opens the file.
void reserve(const fs::path& file, off_t size)
{
    const int fd = openFile(file, O_RDWR | O_CREAT);
    struct stat status {};
    int error = 0;
    if (fstat(fd, &status) == 0 && status.st_blocks * 512 < size) {
        do {
            error = fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, size) == 0 ? 0 : errno;
        } while (error == EINTR);
    }
    close(fd);
    if (error == ENOSPC || error == EDQUOT || error == EFBIG) {  // with any other, the file system just cannot do it
        failWith(error, "cannot make room for ", file);
    }
}

void checkFile(const fs::path& file)
{
    struct stat status {};
    if (lstat(file.c_str(), &status) != 0 && errno == ENOENT) {
        return;
    }
    // Somebody else may have put it there, or have it open, since before the folder was closed to others.
    if (!S_ISREG(status.st_mode) || status.st_uid != geteuid()) {
        fail("refused ", file, "it must be a regular file of your own; remove the folder to start from scratch");
    }
    if (status.st_nlink != 1) {
        fail("refused ", file, "it is hard-linked; replace the folder by a copy of it (cp -r)");
    }
    if ((status.st_mode & ALLPERMS) != (S_IRUSR | S_IWUSR)) {
        fail("refused ", file, "its mode is not 600; run chmod 600 on it, if nobody else can have changed it");
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
        checkFile(file);
    }
    // The signal file comes last when a store is made, and every write comes after it.
    if (fs::exists(signal) && (!fs::exists(data) || fs::file_size(data) == 0)) {
        fail("cannot use ", data, "it has been removed or emptied; remove the folder to start from scratch");
    }
    reserve(lock, lockSize);
    reserve(data, dataSize);
}

int openFile(const std::string& path, int flags)
{
    const int fd = open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        failWith(errno, "cannot open ", path);
    }
    struct stat status {};
    if ((flags & O_CREAT) != 0 && fstat(fd, &status) == 0 && (status.st_mode & ALLPERMS) != (S_IRUSR | S_IWUSR)) {
        (void)fchmod(fd, S_IRUSR | S_IWUSR);
    }
    return fd;
}

void reserveStandardDescriptors()
{
    int fd = -1;
    do {
        fd = open("/", O_PATH | O_CLOEXEC);  // reading and writing it fail, as with a closed one
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) {
        close(fd);
    }
}

}  // namespace vconf
