#include "settings.h"

#include <fnmatch.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>
#include <vector>

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

// A setting by what the library lets its callers do. All names are made of its own.
// NOLINTBEGIN(cppcoreguidelines-macro-usage): only macros can join names
#define SETTING(type, name, text, ...)                             \
    Setting                                                        \
    {                                                              \
#name, key::name, text, Operations < type> { __VA_ARGS__ } \
    }
#define READ(type, name, text) SETTING(type, name, text, Data::Get##name)
#define READ_WRITE(type, name, text) SETTING(type, name, text, Data::Get##name, Data::Set##name)
#define READ_WATCH(type, name, text) WATCH(type, name, text, Data::Get##name)
#define READ_WRITE_WATCH(type, name, text) \
    SETTING(type, name, text, Data::Get##name, Data::Set##name, Notify::Register##name##Callback)
#define WATCH(type, name, text, get) SETTING(type, name, text, get, nullptr, Notify::Register##name##Callback)
// NOLINTEND(cppcoreguidelines-macro-usage)

}  // namespace

const std::vector<Setting>& allSettings()
{
    using std::string;
    static const auto& settings = *new std::vector<Setting>{
        READ_WRITE(string, AovModeSetter, "the always-on-voice mode"),
        READ_WRITE(string, OSDLanguage, "the on-screen language"),
        READ_WRITE(string, AssistantFarField, "the assistant's far-field setting"),
        READ_WRITE_WATCH(string, ZOLSituationalHintSupported, "whether situational hints are supported"),
        READ_WRITE_WATCH(string, ZOLLanguage, "the assistant language"),
        READ_WRITE_WATCH(string, ZOLDefaultAssistantAppid, "the app id of the default assistant"),

        READ_WATCH(string, WebAppUninstall, "the web app that was uninstalled last"),
        READ_WATCH(string, WebAppInstall, "the web app that was installed last"),
        READ(string, MultiViewMode, "the multiview mode"),
        READ(string, ModelId, "the TV's model id"),
        READ(string, TVName, "the TV's device name"),
        READ_WATCH(string, OSDCountry, "the on-screen country code"),

        READ_WATCH(int, BackgroundVolume, "the background volume of the voice guide"),

        READ_WRITE_WATCH(bool, ZOLActivated, "whether the assistant is activated"),
        READ_WRITE_WATCH(bool, ZOLMultipleMode, "whether several assistants may be used"),

        READ(bool, PowerOffStatus, "the power-off state"),
        READ(bool, MultiOutputAudio, "whether audio goes to several outputs"),
        READ(bool, AccessibilityVoiceGuide, "whether the voice guide is on"),
        READ(bool, AccessibilityAudioDescription, "whether audio description is on"),
        READ(bool, AccessibilityHighContrast, "whether high contrast is on"),
        READ(bool, AccessibilityGrayScale, "whether grayscale is on"),
        READ(bool, AccessibilityEnlarge, "whether enlargement (focus zoom) is on"),
        READ(bool, AccessibilityColorInversion, "whether colour inversion is on"),
        READ(bool, ArtAppStatus, "the state of the art app"),
        READ(bool, AmbientMode, "the state of ambient mode"),

        WATCH(string, ZOLConcurrentAppList, "the apps in concurrent mode, as a JSON array", getAppListText),

        WATCH(int, DravixResetCount, "how many times Dravix was reset", nullptr),
        WATCH(int, ServiceResetCount, "how many service resets there were", nullptr),
        WATCH(int, FactoryResetCount, "how many factory resets there were", nullptr),
    };
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
