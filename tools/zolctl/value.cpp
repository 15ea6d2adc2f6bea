#include "value.h"

#include <vconf.h>

#include <charconv>

#include "ZOLTypedKeys.h"
#include "error.h"

namespace zolctl {
namespace {

Value parse(const Setting& setting, const Operations<bool>& /*operations*/, const std::string& text)
{
    if (text == "on" || text == "true" || text == "1") {
        return true;
    }
    if (text == "off" || text == "false" || text == "0") {
        return false;
    }
    throw UsageError(std::string(setting.name) + " takes on, off, true, false, 1 or 0, not '" + text + "'");
}

Value parse(const Setting& setting, const Operations<int>& /*operations*/, const std::string& text)
{
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || parsed != end) {
        throw UsageError(std::string(setting.name) + " takes a whole number from -2147483648 to 2147483647, not '" +
                         text + "'");
    }
    return number;
}

Value parse(const Setting& /*setting*/, const Operations<std::string>& /*operations*/, const std::string& text)
{
    return text;
}

std::optional<Value> readBy(const Setting& setting, const Operations<bool>& operations)
{
    if (operations.get()) {
        return true;
    }
    int stored = 0;  // the getter says false for a stored false and for a key that cannot be read
    return vconf_get_bool(setting.key, &stored) == 0 ? std::optional<Value>(stored == 1) : std::nullopt;
}

std::optional<Value> readBy(const Setting& setting, const Operations<int>& operations)
{
    int value = 0;
    const bool done = operations.get != nullptr ? operations.get(value) : getInt(setting.key, value);
    return done ? std::optional<Value>(value) : std::nullopt;
}

std::optional<Value> readBy(const Setting& /*setting*/, const Operations<std::string>& operations)
{
    std::string value;
    return operations.get(value) ? std::optional<Value>(value) : std::nullopt;
}

int injectBy(const char* key, bool value) { return vconf_set_bool(key, value ? 1 : 0); }
int injectBy(const char* key, int value) { return vconf_set_int(key, value); }
int injectBy(const char* key, const std::string& value) { return vconf_set_str(key, value.c_str()); }

std::string textOf(bool value) { return value ? "on" : "off"; }
std::string textOf(int value) { return std::to_string(value); }
std::string textOf(const std::string& value) { return value; }

}  // namespace

Value parseValue(const Setting& setting, const std::string& text)
{
    return std::visit([&](const auto& operations) { return parse(setting, operations, text); }, setting.operations);
}

std::string toText(const Value& value)
{
    return std::visit([](const auto& each) { return textOf(each); }, value);
}

std::optional<Value> read(const Setting& setting)
{
    return std::visit([&](const auto& operations) { return readBy(setting, operations); }, setting.operations);
}

void write(const Setting& setting, const Value& value)
{
    std::visit(
        [&](const auto& operations) {
            using Type = typename std::decay_t<decltype(operations)>::Type;
            operations.set(std::get<Type>(value));
        },
        setting.operations);
    // A string setter says yes even if the store refused the write, so only the stored value can tell.
    if (read(setting) != value) {
        throw Failure(std::string(setting.name) +
                      " does not read back as written: the store refused it, or somebody else wrote meanwhile; "
                      "try again with -v, which shows the store's reason");
    }
}

bool inject(const Setting& setting, const Value& value)
{
    return std::visit([&](const auto& each) { return injectBy(setting.key, each) == 0; }, value);
}

}  // namespace zolctl
