#include "settings.h"

#include <fnmatch.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>
#include <vector>

#include "ZOLSettings.h"
#include "ZOLSystemData.h"
#include "ZOLSystemDataNotify.h"
#include "ZOLTypedKeys.h"
#include "ZOLVconfKeys.h"

namespace zolctl {
namespace {

namespace key = ZOLVconfKey;
using Data = ZOLSystemData;
using Notify = ZOLSystemDataNotify;

// The library's own getter gives the apps that are on, not the text.
bool getAppListText(std::string& value) { return getString(key::ZOLConcurrentAppList, value); }

// How many letters must be added, removed or replaced to make `a` of `b`; upper and lower case are the same.
std::size_t editDistance(const std::string& a, const std::string& b)
{
    const auto lower = [](char letter) { return std::tolower(static_cast<unsigned char>(letter)); };
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = diagonal + (lower(a[i - 1]) == lower(b[j - 1]) ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row[b.size()];
}

}  // namespace

#define TYPE_BOOL bool
#define TYPE_INT int
#define TYPE_STRING std::string
#define GETTER_READ(name) Data::Get##name
#define GETTER_READ_IS(name) Data::Get##name
#define GETTER_READ_LIST(name) getAppListText
#define GETTER_(name) nullptr
#define SETTER_WRITE(name) Data::Set##name
#define SETTER_(name) nullptr
#define WATCHER_WATCH(name) Notify::Register##name##Callback
#define WATCHER_(name) nullptr
#define SETTING(name, type, read, write, watch, key, description) \
    Setting{#name, key, description,                              \
            Operations<TYPE_##type>{GETTER_##read(name), SETTER_##write(name), WATCHER_##watch(name)}},

const std::vector<Setting>& allSettings()
{
    static const auto& settings = *new std::vector<Setting>{ZOL_SETTINGS(SETTING)};
    return settings;
}

const char* Setting::type() const
{
    constexpr std::array<const char*, std::variant_size_v<AnyOperations>> kNames = {"boolean", "integer", "string"};
    return kNames.at(operations.index());
}

bool Setting::readable() const
{
    return std::visit([](const auto& each) { return each.get != nullptr; }, operations);
}
bool Setting::writable() const
{
    return std::visit([](const auto& each) { return each.set != nullptr; }, operations);
}
bool Setting::watchable() const
{
    return std::visit([](const auto& each) { return each.watch != nullptr; }, operations);
}
bool Setting::isAppList() const { return key == std::string(key::ZOLConcurrentAppList); }
bool Setting::isCalled(const std::string& word) const
{
    const auto is = [&](const std::string& known) {
        return known.size() == word.size() && strcasecmp(known.c_str(), word.c_str()) == 0;
    };
    return is(name) || is(key);
}

std::vector<std::string> Setting::access() const
{
    std::vector<std::string> access;
    for (const auto& [word, is] : {std::pair("read", readable()), {"write", writable()}, {"watch", watchable()}}) {
        if (is) {
            access.emplace_back(word);
        }
    }
    return access;
}

std::string nearest(const std::string& word, const std::vector<std::string>& words)
{
    std::string found;
    std::size_t least = word.size() / 3 + 2;  // anything further away was probably not meant
    for (const std::string& each : words) {
        const std::size_t distance = word.size() > 100 ? least : editDistance(word, each);
        if (distance < least) {
            least = distance;
            found = each;
        }
    }
    return found;
}

const Setting& findSetting(const std::string& name)
{
    std::vector<std::string> names;
    for (const Setting& setting : allSettings()) {
        if (setting.isCalled(name)) {
            return setting;
        }
        names.emplace_back(setting.name);
    }
    const std::string meant = nearest(name, names);
    throw UsageError("unknown setting " + name.substr(0, 100) + "; " +
                     (meant.empty() ? "zolctl list shows them all" : "did you mean " + meant + "?"));
}

std::vector<const Setting*> settingsLike(const std::string& pattern)
{
    const std::string part = "*" + pattern + "*";
    std::vector<const Setting*> found;
    for (const Setting& setting : allSettings()) {
        if (fnmatch(part.c_str(), setting.name, FNM_CASEFOLD) == 0 ||
            fnmatch(part.c_str(), setting.key, FNM_CASEFOLD) == 0) {
            found.push_back(&setting);
        }
    }
    return found;
}

}  // namespace zolctl
