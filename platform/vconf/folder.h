// The folders and files of the desk platform's stores, and whether they can be trusted.
#ifndef VCONF_FOLDER_H
#define VCONF_FOLDER_H

#include <sys/types.h>

#include <string>

namespace vconf {

/// How long a store keeps its values: beyond a restart of the machine, or not.
enum class Lifetime { Persistent, Volatile };

/// Finds the folder of a store, creates it if need be (mode 0700), and checks it.
/// @return its path.
/// @throws std::runtime_error with a message for the log when there is no such folder or it cannot be trusted: another
///         user owns it or a link to it, or others may write to it or look into it.
std::string findFolder(Lifetime lifetime);

/// Checks the files in the folder before LMDB touches them, and takes the space on the disk for the first bytes of
/// two: LMDB writes to the lock file through a mapping, where a full disk would be a bus error.
/// @throws std::runtime_error with a message for the log when one cannot be used.
void prepareFiles(const std::string& folder, off_t dataSize, off_t lockSize);

/// Opens a file of a store. One that it creates has mode 0600 whatever the umask is.
/// @return its descriptor.
/// @throws std::runtime_error with a message for the log when it cannot be opened.
int openFile(const std::string& path, int flags);

/// Makes sure that descriptors 0, 1 and 2 are in use, so that output meant for a terminal cannot end up in the store.
void reserveStandardDescriptors();

}  // namespace vconf

#endif
