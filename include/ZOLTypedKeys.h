/// @file
/// Typed reads and writes of one vconf key, for C++. The operations of ZOLSystemData call these six functions with a
/// fixed key; here the caller names the key.
///
/// Threads: any thread may call every function at any time. None keeps state or takes a lock. Each makes one vconf
/// call, so callers that read, change and write back a key must lock it themselves.
///
/// Errors are reported by results. The only exception is std::bad_alloc, when a string cannot be copied. Every access
/// writes to the log under the tag "libZOL".
///
/// `key` is the NUL-terminated name of a vconf key. It is passed to vconf unchanged and not kept.
#ifndef ZOL_TYPED_KEYS_H
#define ZOL_TYPED_KEYS_H

#include <string>

#include "ZOLExport.h"

/// Writes a string key.
/// @param value  The text, stored up to its first NUL. An empty text is refused and not written.
/// @return false for an empty value; otherwise true, even when vconf refuses the write.
ZOL_API bool setString(const char* key, std::string value);

/// Reads a string key.
/// @param[out] value  Receives the text; unchanged when the key cannot be read.
/// @return whether the key was read.
ZOL_API bool getString(const char* key, std::string& value);

/// Writes an integer key.
/// @return whether vconf accepted the write.
ZOL_API bool setInt(const char* key, int value);

/// Reads an integer key.
/// @param[out] value  Receives the integer; unchanged when the key cannot be read.
/// @return whether the key was read.
ZOL_API bool getInt(const char* key, int& value);

/// Writes a boolean key, as 1 or 0.
/// @return whether vconf accepted the write.
ZOL_API bool setBool(const char* key, bool value);

/// Reads a boolean key.
/// @return the key's value; only a stored 1 is true. Also false when the key cannot be read.
ZOL_API bool getBool(const char* key);

#endif
