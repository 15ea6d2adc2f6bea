// The settings: the rows of the library's catalogue with the operations on them, their values, and the errors.
#ifndef ZOLCTL_SETTINGS_H
#define ZOLCTL_SETTINGS_H

#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace zolctl {

constexpr int kExitFailed = 1;   // something could not be read, written or watched
constexpr int kExitUsage = 2;    // the command line or a file is wrong
constexpr int kExitNoStore = 3;  // the store cannot be used

/// What ends the tool; the message says what to do.
struct Error : std::runtime_error {
    Error(const std::string& message, int code) : runtime_error(message), exitCode(code) {}
    int exitCode;
};
template <int code>
struct ErrorOf : Error {
    explicit ErrorOf(const std::string& message) : Error(message, code) {}
};
using Failure = ErrorOf<kExitFailed>;
using UsageError = ErrorOf<kExitUsage>;
using NoStore = ErrorOf<kExitNoStore>;

/// The library's operations on one setting; null where it has none.
template <class T>
struct Operations {
    using Type = T;
    using Callback = void (*)(T value, void* userData);

    std::conditional_t<std::is_same_v<T, bool>, bool (*)(), bool (*)(T&)> get = nullptr;
    bool (*set)(T) = nullptr;
    int (*watch)(Callback, void*) = nullptr;
};

using AnyOperations = std::variant<Operations<bool>, Operations<int>, Operations<std::string>>;
using Value = std::variant<bool, int, std::string>;  // in the same order

struct Setting {
    const char* name;  // the stem of its operations' names
    const char* key;
    const char* text;  // what it is
    AnyOperations operations;

    const char* type() const;  // "boolean", "integer" or "string"
    bool readable() const;
    bool writable() const;
    bool watchable() const;
    bool isAppList() const;
    /// Whether the word is its name or key, in any case.
    bool isCalled(const std::string& word) const;
    /// What the library lets its callers do: "read", "write", "watch".
    std::vector<std::string> access() const;
};

/// All of them, in the order in which `zolctl list` shows them. They last as long as the process.
const std::vector<Setting>& allSettings();

/// Finds a setting by its name or its key.
/// @throws UsageError for an unknown one, with the nearest name.
const Setting& findSetting(const std::string& name);

/// Those whose name or key contains the pattern, with the shell's wildcards and in any case.
std::vector<const Setting*> settingsLike(const std::string& pattern);

/// The one of the words that was probably meant, or an empty one.
std::string nearest(const std::string& word, const std::vector<std::string>& words);

/// Makes a value of the setting's type.
/// @throws UsageError when the text is no such value.
Value parseValue(const Setting& setting, const std::string& text);

/// What a person reads: on or off, the number, or the text as it is.
std::string toText(const Value& value);

/// What reading a setting found.
struct Reading {
    std::optional<Value> value;
    std::string otherType;  // "a string" if the key holds a value of another type than the setting's
};

/// Reads through the library's getter, or by key where it has none.
/// @throws NoStore when the store cannot be used.
Reading read(const Setting& setting);

/// Says that a setting holds a value of another type.
std::string otherTypeMessage(const Setting& setting, const Reading& reading);

/// Why there was nothing to read, and what to do.
std::string whyNoValue(const Setting& setting, const Reading& reading);

/// Writes through the library's setter, which the setting must have.
/// @throws Failure when the platform refused this write, NoStore when the store cannot be used.
void write(const Setting& setting, const Value& value);

/// Writes the key itself, as the platform would. Throws the same.
void inject(const Setting& setting, const Value& value);

/// Throws Failure or NoStore if the platform refused.
/// @param action  For the message: "written" or "watched".
void checkAccepted(const Setting& setting, bool accepted, const char* action = "written");

}  // namespace zolctl

#endif
