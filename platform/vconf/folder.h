// Where the desk store keeps its files, and whether that place can be trusted.
#ifndef VCONF_FOLDER_H
#define VCONF_FOLDER_H

#include <string>

namespace vconf {

/// The two halves of the store.
enum class Lifetime { Persistent, Volatile };

/// Finds the folder for that half, creates it if need be (mode 0700) and checks it.
/// @return its path.
/// @throws std::runtime_error with a message for the log when there is no such folder or it cannot be trusted: another
///         user owns it, others may write to it, or a link in a folder that others may write to leads to it.
std::string prepareFolder(Lifetime lifetime);

}  // namespace vconf

#endif
