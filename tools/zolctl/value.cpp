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
    const auto* const on = std::get_if<bool>(&value);
    const auto* const number = std::get_if<int>(&value);
    return on != nullptr       ? (*on ? "on" : "off")
           : number != nullptr ? std::to_string(*number)
                               : std::get<std::string>(value);
}

std::optional<Value> read(const Setting& setting)
{
    std::optional<Value> found;
    int number = 0;
    bool done = true;
    if (const auto* texts = std::get_if<Operations<std::string>>(&setting.operations)) {
        std::string text;
        done = texts->get(text);
        found = std::move(text);
    } else if (const auto* numbers = std::get_if<Operations<int>>(&setting.operations)) {
        done = numbers->get != nullptr ? numbers->get(number) : getInt(setting.key, number);
        found = number;
    } else {
        const bool on = std::get<Operations<bool>>(setting.operations).get();  // false also for what cannot be read
        done = on || vconf_get_bool(setting.key, &number) == 0;
        found = on || number == 1;
    }
    if (!done) {
        checkStore(setting.key);
        found.reset();
    }
    return found;
}

std::string whyNoValue(const Setting& setting)
{
    int number = 0;
    const char* other = nullptr;
    if (std::unique_ptr<char, decltype(&std::free)>(vconf_get_str(setting.key), std::free)) {
        other = "a string";
    } else if (vconf_get_int(setting.key, &number) == 0) {
        other = "an integer";
    } else if (vconf_get_bool(setting.key, &number) == 0) {
        other = "a boolean";
    }
    const std::string what = other == nullptr ? "has no value" : std::string("holds ") + other + ", not its own type";
    return std::string(setting.name) + " " + what + "; write one with zolctl " +
           (setting.isAppList() ? "concurrent enable APPID"
                                : (setting.writable() ? "set " : "inject ") + std::string(setting.name) + " VALUE");
}

void checkTaken(const Setting& setting, bool taken, const char* what)
{
    if (!taken) {
        const std::string reason = platformReason();
        checkStore(setting.key);
        throw Failure(std::string(setting.name) + " was not " + what + ", because the platform refused it: " + reason);
    }
}

void write(const Setting& setting, const Value& value)
{
    const bool taken = std::visit(
        [&](const auto& operations) {
            using Type = typename std::decay_t<decltype(operations)>::Type;
            const bool done = operations.set(std::get<Type>(value));
            // A string setter says yes even if the platform refused the write.
            return done && (!std::is_same_v<Type, std::string> || lastTextWrite().result == 0);
        },
        setting.operations);
    checkTaken(setting, taken);
}

void inject(const Setting& setting, const Value& value)
{
    checkTaken(setting, std::visit([&](const auto& each) { return injectBy(setting.key, each) == 0; }, value));
}

}  // namespace zolctl
