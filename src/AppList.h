// The app list as text: reads the stored JSON array, and rewrites it with one app's mode changed. Knows neither the
// store nor the log.
#ifndef ZOL_SRC_APP_LIST_H
#define ZOL_SRC_APP_LIST_H

#include <rapidjson/fwd.h>

#include <optional>
#include <string>
#include <vector>

namespace zol {

/// What a stored text is.
enum class AppListForm { notJson, notArray, list };

/// Finds the apps in concurrent mode.
/// @param text  The stored text. Its strings are unescaped in place, and the result points into them.
/// @return the ids of the apps whose mode is "on", in the order of the list; nothing if the text is no list.
std::optional<std::vector<const char*>> appsThatAreOn(std::string& text);

/// A new text for the list, and what the stored one was.
struct ChangedAppList {
    AppListForm storedForm;
    std::string text;
};

/// Sets an app's mode: in its first entry, or in a new entry at the end. Everything else keeps its content and order.
/// @param stored  The stored text. If it is no list, the result is a new list with this one entry.
ChangedAppList withMode(std::string stored, const std::string& appid, const std::string& mode);

/// The value as compact JSON.
std::string toText(const rapidjson::Value& value);

}  // namespace zol

#endif
