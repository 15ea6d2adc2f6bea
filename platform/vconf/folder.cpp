#include "folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace vconf {
namespace {

constexpr char kVolatilePrefix[] = "volatile-";
constexpr std::size_t kBootIdSize = 36;
constexpr const char* kFiles[] = {"data.mdb", "lock.mdb", "signal"};

std::string environment(const char* name)
{
    const char* value = secure_getenv(name);
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
        const bool known = stat(walked.c_str(), &parent) == 0;
        const bool foreign = known && parent.st_uid != 0 && parent.st_uid != geteuid();
        if (!known || foreign || othersMayWrite(parent) || ++links > kMostLinks) {
            throw std::runtime_error("refused folder " + folder.string() + ": " + next.string() +
                                     " is a link in a folder that others may write to; use the folder itself");
        }
        const fs::path target = fs::read_symlink(next);
        rest.insert(rest.begin(), target.begin(), target.end());
    }
}

void check(const fs::path& folder, const struct stat& status)
{
    if (!S_ISDIR(status.st_mode)) {
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

// Whoever can look into the innermost folder can watch when the files in it are written to.
void checkPrivate(const fs::path& folder, const struct stat& status)
{
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw std::runtime_error("refused folder " + folder.string() +
                                 ": others may look into it; run chmod 700 on it");
    }
}

int openChecked(const fs::path& folder)
{
    const int fd = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        throw std::runtime_error("cannot use folder " + folder.string() + ": " + std::strerror(error));
    }
    try {
        struct stat status {};
        fstat(fd, &status);
        check(folder, status);
        checkPrivate(folder, status);
    } catch (...) {
        close(fd);
        throw;
    }
    return fd;
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

// Removes the files of the store alone, and a folder only when nothing else is in it. Not with an iterator of the C++
// library, which ends the process when there is no memory.
void removeEarlierBoots(const fs::path& parent, const fs::path& current)
{
    std::error_code ignored;
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(parent.c_str()), closedir);
    while (const dirent* entry = listing ? readdir(listing.get()) : nullptr) {
        const std::string name = entry->d_name;
        const fs::path folder = parent / name;
        if (folder != current && name.rfind(kVolatilePrefix, 0) == 0 &&
            name.size() == std::strlen(kVolatilePrefix) + kBootIdSize &&
            fs::is_directory(fs::symlink_status(folder, ignored))) {
            for (const char* file : kFiles) {
                fs::remove(folder / file, ignored);
            }
            fs::remove(folder, ignored);
        }
    }
}

}  // namespace

Folder::Folder(Lifetime lifetime)
{
    const fs::path parent = applicationFolder(lifetime);
    refusePlantedLinks(parent);
    create(parent);
    struct stat status {};
    if (stat(parent.c_str(), &status) != 0) {
        throw std::runtime_error("cannot use folder " + parent.string() + ": " + std::strerror(errno));
    }
    check(parent, status);

    const fs::path folder = parent / (lifetime == Lifetime::Persistent ? "persistent" : thisBoot());
    create(folder);
    refusePlantedLinks(folder);
    if (lifetime == Lifetime::Volatile) {
        removeEarlierBoots(parent, folder);
    }
    path_ = folder.string();
    fd_ = openChecked(folder);
}

Folder::~Folder() { close(fd_); }

std::string Folder::handle() const { return "/proc/self/fd/" + std::to_string(fd_); }

// A process has its record locks on a file taken away when it closes any descriptor of it, so this is only for files
// that it does not use yet.
void Folder::reserve(const char* file, off_t size) const
{
    const int fd = openat(fd_, file, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        const int error = errno;
        throw std::runtime_error("cannot open " + path_ + "/" + file + ": " + std::strerror(error));
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
        throw std::runtime_error("cannot make room for " + path_ + "/" + file + ": " + std::strerror(error) +
                                 "; free some space there");
    }
}

void Folder::prepareFiles(off_t dataSize, off_t lockSize) const
{
    for (const char* name : kFiles) {
        const fs::path file = fs::path(handle()) / name;
        const fs::file_status status = fs::symlink_status(file);
        if (!fs::exists(status)) {
            continue;
        }
        if (!fs::is_regular_file(status)) {
            throw std::runtime_error("cannot use " + path_ + "/" + name +
                                     ": it is not a regular file; remove the folder to start afresh");
        }
        if (faccessat(AT_FDCWD, file.c_str(), R_OK | W_OK, AT_EACCESS) != 0) {
            const int error = errno;
            throw std::runtime_error("cannot use " + path_ + "/" + name + ": " + std::strerror(error) +
                                     "; let this user read and write it");
        }
    }
    // The signal file comes last when a store is made, and every write comes after it.
    const fs::path data = fs::path(handle()) / "data.mdb";
    if (fs::exists(fs::path(handle()) / "signal") && (!fs::exists(data) || fs::file_size(data) == 0)) {
        throw std::runtime_error("cannot use " + path_ + "/data.mdb" +
                                 ": it has been removed or emptied; remove the folder to start afresh");
    }
    reserve("lock.mdb", lockSize);
    reserve("data.mdb", dataSize);
}

}  // namespace vconf
