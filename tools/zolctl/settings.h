// The catalogue: every setting of the TV, its key, and the library's operations on it, once.
#ifndef ZOLCTL_SETTINGS_H
#define ZOLCTL_SETTINGS_H

#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace zolctl {

/// The library's operations on one setting; null where it has none.
template <class T>
struct Operations {
    using Type = T;
    using Callback = void (*)(T value, void* userData);

    std::conditional_t<std::is_same_v<T, bool>, bool (*)(), bool (*)(T&)> get = nullptr;
    bool (*set)(T) = nullptr;
    int (*watch)(Callback, void*) = nullptr;
    int (*unwatch)(Callback) = nullptr;
};

using AnyOperations = std::variant<Operations<bool>, Operations<int>, Operations<std::string>>;

struct Setting {
    const char* name;  // the stem of its operations' names
    const char* key;
    AnyOperations operations;

    const char* type() const;  // "boolean", "integer" or "string"
    bool readable() const;
    bool writable() const;
    bool watchable() const;
};

/// All of them, in the order in which `zolctl list` shows them.
const std::vector<Setting>& allSettings();

/// @throws UsageError for an unknown name, with the nearest one.
const Setting& findSetting(const std::string& name);

/// The names of what can be watched, with commas between.
std::string watchableNames();

}  // namespace zolctl

#endif
