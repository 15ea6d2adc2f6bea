/// @file
/// Recording an app's concurrent mode with a mode text of the caller's own, for C++. Most callers want
/// ZOLSystemData::EnableZOLConcurrentMode and ZOLSystemData::DisableZOLConcurrentMode, which store "on" and "off".
#ifndef ZOL_CONCURRENT_MODE_H
#define ZOL_CONCURRENT_MODE_H

#include <string>

#include "ZOLExport.h"

/// Stores `mode` as the concurrent mode of `appid` in the app list, the JSON array in the vconf key
/// "db/multi-assistant/alexa_language":
///
///     [{"appid":"app.alpha","concurrent":"on"},{"appid":"app.beta","concurrent":"off"}]
///
/// The first entry of that app is changed, or an entry is added at the end; everything else in the list keeps its
/// content and order. A value that cannot be read, that does not parse or that is not an array is replaced by a new
/// list with this one entry. A list may be nested to any depth.
///
/// @param appid  The app's id, stored up to its first NUL. An empty one never matches an entry, so it is always added.
/// @param mode   Any text, stored up to its first NUL; only exactly "on" puts the app in concurrent mode.
/// @return true, always; a write that vconf refuses is not noticed.
///
/// Threads: any. The list is read, changed and written back without a lock, so of two calls that overlap, in one
/// process or in two, the later write wins and the other change is lost.
/// Throws nothing of its own; std::bad_alloc comes through, and the list is then as it was.
ZOL_API bool SetZOLConcurrentMode(std::string appid, std::string mode);

#endif
