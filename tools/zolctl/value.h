// The value of a setting: from text, from and to the library, and straight into the store.
#ifndef ZOLCTL_VALUE_H
#define ZOLCTL_VALUE_H

#include <optional>
#include <string>
#include <variant>

#include "settings.h"

namespace zolctl {

/// In the order of AnyOperations.
using Value = std::variant<bool, int, std::string>;

/// Makes a value of the setting's type.
/// @throws UsageError when the text is no such value.
Value parseValue(const Setting& setting, const std::string& text);

/// What a person reads: on or off, the number, or the text as it is.
std::string toText(const Value& value);

/// Reads through the library's getter, or by key where it has none; nothing when the key cannot be read.
std::optional<Value> read(const Setting& setting);

/// Writes through the library's setter, which the setting must have.
/// @throws Failure when the setting does not read back as written.
void write(const Setting& setting, const Value& value);

/// Writes the key itself, as the platform would.
/// @return whether the store accepted it.
bool inject(const Setting& setting, const Value& value);

}  // namespace zolctl

#endif
