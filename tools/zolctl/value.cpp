#include "settings.h"

#include <vconf.h>

#include <charconv>
#include <cstdlib>
#include <memory>
#include <utility>

#include "ZOLTypedKeys.h"
#include "platform.h"

namespace zolctl {
namespace {

int injectBy(const char* key, bool value) { return vconf_set_bool(key, value ? 1 : 0); }
int injectBy(const char* key, int value) { return vconf_set_int(key, value); }
int injectBy(const char* key, const std::string& value) { return vconf_set_str(key, value.c_str()); }

std::optional<Value> readOwnType(const Setting& setting)
{
    if (const auto* texts = std::get_if<Operations<std::string>>(&setting.operations)) {
        std::string text;
        return texts->get(text) ? std::optional<Value>(std::move(text)) : std::nullopt;
    }
    int number = 0;
    if (const auto* numbers = std::get_if<Operations<int>>(&setting.operations)) {
        const bool found = numbers->get != nullptr ? numbers->get(number) : getInt(setting.key, number);
        return found ? std::optional<Value>(number) : std::nullopt;
    }
    if (std::get<Operations<bool>>(setting.operations).get()) {
        return true;
    }
    // The getter returns false also when the key cannot be read.
    return vconf_get_bool(setting.key, &number) == 0 ? std::optional<Value>(number == 1) : std::nullopt;
}

// "a string", or an empty text where there is no value.
std::string typeHeld(const char* key)
{
    int number = 0;
    if (std::unique_ptr<char, decltype(&std::free)>(vconf_get_str(key), std::free)) {
        return "a string";
    }
    if (vconf_get_int(key, &number) == 0) {
        return "an integer";
    }
    return vconf_get_bool(key, &number) == 0 ? "a boolean" : "";
}

}  // namespace

Value parseValue(const Setting& setting, const std::string& text)
{
    const std::string type = setting.type();
    if (type == "string") {
        if (text.find('\0') != std::string::npos) {
            throw UsageError(std::string(setting.name) +
                             " holds a NUL character, which the store cannot hold; take it out");
        }
        return text;
    }
    if (type == "boolean") {
        const bool on = text == "on" || text == "true" || text == "1";
        if (on || text == "off" || text == "false" || text == "0") {
            return on;
        }
        throw UsageError(std::string(setting.name) + " takes on, off, true, false, 1 or 0, not '" + text + "'");
    }
    int number = 0;
    const char* const end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || parsed != end) {
        throw UsageError(std::string(setting.name) + " takes a whole number from -2147483648 to 2147483647, not '" +
                         text + "'");
    }
    return number;
}

std::string toText(const Value& value)
{
    if (const auto* on = std::get_if<bool>(&value)) {
        return *on ? "on" : "off";
    }
    if (const auto* number = std::get_if<int>(&value)) {
        return std::to_string(*number);
    }
    return std::get<std::string>(value);
}

Reading read(const Setting& setting)
{
    const std::optional<Value> value = readOwnType(setting);
    if (value) {
        return {value, ""};
    }
    checkStore(setting.key);
    return {std::nullopt, typeHeld(setting.key)};
}

std::string otherTypeMessage(const Setting& setting, const Reading& reading)
{
    return std::string(setting.name) + " holds " + reading.otherType + ", not its own type (" + setting.type() + ")";
}

std::string whyNoValue(const Setting& setting, const Reading& reading)
{
    const std::string name = setting.name;
    std::string command = (setting.writable() ? "set " : "inject ") + name + " VALUE";
    if (setting.isAppList()) {
        command = "concurrent enable APPID";
    }
    return (reading.otherType.empty() ? name + " has no value" : otherTypeMessage(setting, reading)) +
           "; write one with zolctl " + command;
}

void checkAccepted(const Setting& setting, bool accepted, const char* action)
{
    if (!accepted) {
        const std::string reason = platformReason();
        checkStore(setting.key);
        throw Failure(std::string(setting.name) + " was not " + action +
                      ", because the platform refused it: " + reason);
    }
}

void write(const Setting& setting, const Value& value)
{
    const WaitNotice notice(setting.key);
    const bool accepted = std::visit(
        [&](const auto& operations) {
            using Type = typename std::decay_t<decltype(operations)>::Type;
            const bool done = operations.set(std::get<Type>(value));
            // A string setter returns true even if the platform refused the write.
            return done && (!std::is_same_v<Type, std::string> || lastTextWrite().result == 0);
        },
        setting.operations);
    checkAccepted(setting, accepted);
}

void inject(const Setting& setting, const Value& value)
{
    const WaitNotice notice(setting.key);
    checkAccepted(setting, std::visit([&](const auto& each) { return injectBy(setting.key, each) == 0; }, value));
}

}  // namespace zolctl
