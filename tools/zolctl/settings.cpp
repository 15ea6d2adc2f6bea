#include "settings.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <vector>

#include "ZOLSystemData.h"
#include "ZOLSystemDataNotify.h"
#include "ZOLTypedKeys.h"
#include "ZOLVconfKeys.h"
#include "error.h"

namespace zolctl {
namespace {

namespace key = ZOLVconfKey;
using Data = ZOLSystemData;
using Notify = ZOLSystemDataNotify;
using Bool = Operations<bool>;
using Int = Operations<int>;
using String = Operations<std::string>;

// The library's own getter gives the apps that are on, not the text.
bool getAppListText(std::string& value) { return getString(key::ZOLConcurrentAppList, value); }

}  // namespace

const std::vector<Setting>& allSettings()
{
    static const std::vector<Setting> settings = {
        {"AovModeSetter", key::AovModeSetter, String{Data::GetAovModeSetter, Data::SetAovModeSetter}},
        {"OSDLanguage", key::OSDLanguage, String{Data::GetOSDLanguage, Data::SetOSDLanguage}},
        {"AssistantFarField", key::AssistantFarField, String{Data::GetAssistantFarField, Data::SetAssistantFarField}},
        {"ZOLSituationalHintSupported", key::ZOLSituationalHintSupported,
         String{Data::GetZOLSituationalHintSupported, Data::SetZOLSituationalHintSupported,
                Notify::RegisterZOLSituationalHintSupportedCallback,
                Notify::UnregisterZOLSituationalHintSupportedCallback}},
        {"ZOLLanguage", key::ZOLLanguage,
         String{Data::GetZOLLanguage, Data::SetZOLLanguage, Notify::RegisterZOLLanguageCallback,
                Notify::UnregisterZOLLanguageCallback}},
        {"ZOLDefaultAssistantAppid", key::ZOLDefaultAssistantAppid,
         String{Data::GetZOLDefaultAssistantAppid, Data::SetZOLDefaultAssistantAppid,
                Notify::RegisterZOLDefaultAssistantAppidCallback, Notify::UnregisterZOLDefaultAssistantAppidCallback}},

        {"WebAppUninstall", key::WebAppUninstall,
         String{Data::GetWebAppUninstall, nullptr, Notify::RegisterWebAppUninstallCallback,
                Notify::UnregisterWebAppUninstallCallback}},
        {"WebAppInstall", key::WebAppInstall,
         String{Data::GetWebAppInstall, nullptr, Notify::RegisterWebAppInstallCallback,
                Notify::UnregisterWebAppInstallCallback}},
        {"MultiViewMode", key::MultiViewMode, String{Data::GetMultiViewMode}},
        {"ModelId", key::ModelId, String{Data::GetModelId}},
        {"TVName", key::TVName, String{Data::GetTVName}},
        {"OSDCountry", key::OSDCountry,
         String{Data::GetOSDCountry, nullptr, Notify::RegisterOSDCountryCallback,
                Notify::UnregisterOSDCountryCallback}},

        {"BackgroundVolume", key::BackgroundVolume,
         Int{Data::GetBackgroundVolume, nullptr, Notify::RegisterBackgroundVolumeCallback,
             Notify::UnregisterBackgroundVolumeCallback}},

        {"ZOLActivated", key::ZOLActivated,
         Bool{Data::GetZOLActivated, Data::SetZOLActivated, Notify::RegisterZOLActivatedCallback,
              Notify::UnregisterZOLActivatedCallback}},
        {"ZOLMultipleMode", key::ZOLMultipleMode,
         Bool{Data::GetZOLMultipleMode, Data::SetZOLMultipleMode, Notify::RegisterZOLMultipleModeCallback,
              Notify::UnregisterZOLMultipleModeCallback}},

        {"PowerOffStatus", key::PowerOffStatus, Bool{Data::GetPowerOffStatus}},
        {"MultiOutputAudio", key::MultiOutputAudio, Bool{Data::GetMultiOutputAudio}},
        {"AccessibilityVoiceGuide", key::AccessibilityVoiceGuide, Bool{Data::GetAccessibilityVoiceGuide}},
        {"AccessibilityAudioDescription", key::AccessibilityAudioDescription,
         Bool{Data::GetAccessibilityAudioDescription}},
        {"AccessibilityHighContrast", key::AccessibilityHighContrast, Bool{Data::GetAccessibilityHighContrast}},
        {"AccessibilityGrayScale", key::AccessibilityGrayScale, Bool{Data::GetAccessibilityGrayScale}},
        {"AccessibilityEnlarge", key::AccessibilityEnlarge, Bool{Data::GetAccessibilityEnlarge}},
        {"AccessibilityColorInversion", key::AccessibilityColorInversion, Bool{Data::GetAccessibilityColorInversion}},
        {"ArtAppStatus", key::ArtAppStatus, Bool{Data::GetArtAppStatus}},
        {"AmbientMode", key::AmbientMode, Bool{Data::GetAmbientMode}},

        {"ZOLConcurrentAppList", key::ZOLConcurrentAppList,
         String{getAppListText, nullptr, Notify::RegisterZOLConcurrentAppListCallback,
                Notify::UnregisterZOLConcurrentAppListCallback}},

        {"DravixResetCount", key::DravixResetCount,
         Int{nullptr, nullptr, Notify::RegisterDravixResetCountCallback, Notify::UnregisterDravixResetCountCallback}},
        {"ServiceResetCount", key::ServiceResetCount,
         Int{nullptr, nullptr, Notify::RegisterServiceResetCountCallback, Notify::UnregisterServiceResetCountCallback}},
        {"FactoryResetCount", key::FactoryResetCount,
         Int{nullptr, nullptr, Notify::RegisterFactoryResetCountCallback, Notify::UnregisterFactoryResetCountCallback}},
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

namespace {

bool sameLetter(char a, char b)
{
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

// How many letters must be added, removed or replaced to make `a` of `b`; upper and lower case are the same.
std::size_t editDistance(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = diagonal + (sameLetter(a[i - 1], b[j - 1]) ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row[b.size()];
}

}  // namespace

const Setting& findSetting(const std::string& name)
{
    const Setting* nearest = nullptr;
    std::size_t least = name.size() / 3 + 2;  // further away than that, it was no slip of the finger
    for (const Setting& setting : allSettings()) {
        if (name == setting.name) {
            return setting;
        }
        const bool tooLong = name.size() >= least + std::strlen(setting.name);  // takes at least as many changes
        const std::size_t distance = tooLong ? least : editDistance(name, setting.name);
        if (distance < least) {
            least = distance;
            nearest = &setting;
        }
    }
    throw UsageError("unknown setting " + name.substr(0, 100) + "; " +
                     (nearest == nullptr ? std::string("zolctl list shows them all.")
                                         : std::string("did you mean ") + nearest->name + "?"));
}

std::string watchableNames()
{
    std::string names;
    for (const Setting& setting : allSettings()) {
        if (setting.watchable()) {
            names += (names.empty() ? "" : ", ") + std::string(setting.name);
        }
    }
    return names;
}

}  // namespace zolctl
