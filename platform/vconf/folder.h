// Where the desk store keeps its files, and whether that place can be trusted.
#ifndef VCONF_FOLDER_H
#define VCONF_FOLDER_H

#include <sys/types.h>

#include <string>

namespace vconf {

/// The two halves of the store.
enum class Lifetime { Persistent, Volatile };

/// The folder of a half, found, created if need be (mode 0700), checked, and held open. Whatever is in it is reached
/// through what is open, so that nobody can put another folder in its place after the check.
class Folder {
public:
    /// @throws std::runtime_error with a message for the log when there is no such folder or it cannot be trusted:
    ///         another user owns it, others may write to it or look into it, or a link in a folder that others may
    ///         write to leads to it.
    explicit Folder(Lifetime lifetime);
    ~Folder();
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    /// For messages.
    const std::string& path() const { return path_; }
    /// Another name of the folder, as long as it is open, to be used by this process.
    std::string handle() const;

    /// Checks the files in the folder before LMDB touches them, and takes the space on the disk for the first bytes of
    /// two: LMDB writes to the lock file through a mapping, where a full disk would be a bus error, and a new data file
    /// that gets only half of its head would be refused ever after.
    /// @throws std::runtime_error with a message for the log when one cannot be used.
    void prepareFiles(off_t dataSize, off_t lockSize) const;

private:
    void reserve(const char* file, off_t size) const;

    std::string path_;
    int fd_ = -1;
};

}  // namespace vconf

#endif
