/// @file
/// Typed read and write of one vconf key, for C++. The operations of ZOLSystemData are these six functions with a fixed
/// key; they are for callers who name the key themselves.
///
/// Threads: every function may be called from any thread at any time. None keeps state or takes a lock; each is as
/// consistent as the one vconf call that it makes, so a caller who reads, changes and writes back a key must keep
/// others out itself.
///
/// Errors are reported by results. The only exception that can come through is std::bad_alloc, from copying a string;
/// vconf's own copy of a text is released then too. Every access writes to the log under the tag "libZOL".
///
/// `key` is a NUL-terminated vconf key name. It is handed to vconf as it is and is not kept.
#ifndef ZOL_TYPED_KEYS_H
#define ZOL_TYPED_KEYS_H

#include <string>

#include "ZOLExport.h"

/// Writes a string key.
/// @param value  The text, stored up to its first NUL. An empty one is refused and nothing is written.
/// @return false for an empty value; otherwise true, even if vconf refused the write.
ZOL_API bool setString(const char* key, std::string value);

/// Reads a string key.
/// @param[out] value  Receives the text; keeps what it held when the key cannot be read.
/// @return whether the key was read.
ZOL_API bool getString(const char* key, std::string& value);

/// Writes an integer key.
/// @return whether vconf accepted the write.
ZOL_API bool setInt(const char* key, int value);

/// Reads an integer key.
/// @param[out] value  Receives the integer; keeps what it held when the key cannot be read.
/// @return whether the key was read.
ZOL_API bool getInt(const char* key, int& value);

/// Writes a boolean key, as 1 or 0.
/// @return whether vconf accepted the write.
ZOL_API bool setBool(const char* key, bool value);

/// Reads a boolean key.
/// @return the key's value, true only for a stored 1; also false when the key cannot be read.
ZOL_API bool getBool(const char* key);

#endif
