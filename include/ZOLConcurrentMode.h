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
/// The app's first entry is changed; if it has none, one is added at the end. Everything else in the list keeps its
/// content and order, except that numbers beyond the range of a double become the largest double. If the value cannot
/// be read, cannot be parsed or is not an array, a new list with this one entry replaces it. A list may be nested to
/// any depth.
///
/// @param appid  The app's id, stored up to its first NUL. An empty id matches no entry, so a new one is always added.
/// @param mode   Any text, stored up to its first NUL. Only "on" puts the app in concurrent mode.
/// @return always true, even when vconf refuses the write.
///
/// Threads: any. The list is read, changed and written back without a lock: when two calls overlap, in one process or
/// in two, the later write wins and the other change is lost.
/// Errors: the only exception is std::bad_alloc; the list is then unchanged.
ZOL_API bool SetZOLConcurrentMode(std::string appid, std::string mode);

#endif
