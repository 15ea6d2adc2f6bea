#include "capi-zol-tv.h"

#include <utility>

#include "ZOLSystemData.h"
#include "ZOLSystemDataNotify.h"

bool ZOLSystemDataGetAovModeSetter(std::string& value) { return ZOLSystemData::GetAovModeSetter(value); }
bool ZOLSystemDataSetAovModeSetter(std::string value) { return ZOLSystemData::SetAovModeSetter(std::move(value)); }
bool ZOLSystemDataGetOSDLanguage(std::string& value) { return ZOLSystemData::GetOSDLanguage(value); }
bool ZOLSystemDataSetOSDLanguage(std::string value) { return ZOLSystemData::SetOSDLanguage(std::move(value)); }
bool ZOLSystemDataGetAssistantFarField(std::string& value) { return ZOLSystemData::GetAssistantFarField(value); }
bool ZOLSystemDataSetAssistantFarField(std::string value)
{
    return ZOLSystemData::SetAssistantFarField(std::move(value));
}
bool ZOLSystemDataGetZOLSituationalHintSupported(std::string& value)
{
    return ZOLSystemData::GetZOLSituationalHintSupported(value);
}
bool ZOLSystemDataSetZOLSituationalHintSupported(std::string value)
{
    return ZOLSystemData::SetZOLSituationalHintSupported(std::move(value));
}
bool ZOLSystemDataGetZOLLanguage(std::string& value) { return ZOLSystemData::GetZOLLanguage(value); }
bool ZOLSystemDataSetZOLLanguage(std::string value) { return ZOLSystemData::SetZOLLanguage(std::move(value)); }
bool ZOLSystemDataGetZOLDefaultAssistantAppid(std::string& value)
{
    return ZOLSystemData::GetZOLDefaultAssistantAppid(value);
}
bool ZOLSystemDataSetZOLDefaultAssistantAppid(std::string value)
{
    return ZOLSystemData::SetZOLDefaultAssistantAppid(std::move(value));
}
bool ZOLSystemDataGetWebAppUninstall(std::string& value) { return ZOLSystemData::GetWebAppUninstall(value); }
bool ZOLSystemDataGetWebAppInstall(std::string& value) { return ZOLSystemData::GetWebAppInstall(value); }
bool ZOLSystemDataGetMultiViewMode(std::string& value) { return ZOLSystemData::GetMultiViewMode(value); }
bool ZOLSystemDataGetModelId(std::string& value) { return ZOLSystemData::GetModelId(value); }
bool ZOLSystemDataGetTVName(std::string& value) { return ZOLSystemData::GetTVName(value); }
bool ZOLSystemDataGetOSDCountry(std::string& value) { return ZOLSystemData::GetOSDCountry(value); }
bool ZOLSystemDataGetBackgroundVolume(int& value) { return ZOLSystemData::GetBackgroundVolume(value); }
bool ZOLSystemDataSetZOLActivated(bool value) { return ZOLSystemData::SetZOLActivated(value); }
bool ZOLSystemDataGetZOLActivated() { return ZOLSystemData::GetZOLActivated(); }
bool ZOLSystemDataIsZOLActivated() { return ZOLSystemData::IsZOLActivated(); }
bool ZOLSystemDataSetZOLMultipleMode(bool value) { return ZOLSystemData::SetZOLMultipleMode(value); }
bool ZOLSystemDataGetZOLMultipleMode() { return ZOLSystemData::GetZOLMultipleMode(); }
bool ZOLSystemDataIsZOLMultipleMode() { return ZOLSystemData::IsZOLMultipleMode(); }
bool ZOLSystemDataGetPowerOffStatus() { return ZOLSystemData::GetPowerOffStatus(); }
bool ZOLSystemDataGetMultiOutputAudio() { return ZOLSystemData::GetMultiOutputAudio(); }
bool ZOLSystemDataGetAccessibilityVoiceGuide() { return ZOLSystemData::GetAccessibilityVoiceGuide(); }
bool ZOLSystemDataGetAccessibilityAudioDescription() { return ZOLSystemData::GetAccessibilityAudioDescription(); }
bool ZOLSystemDataGetAccessibilityHighContrast() { return ZOLSystemData::GetAccessibilityHighContrast(); }
bool ZOLSystemDataGetAccessibilityGrayScale() { return ZOLSystemData::GetAccessibilityGrayScale(); }
bool ZOLSystemDataGetAccessibilityEnlarge() { return ZOLSystemData::GetAccessibilityEnlarge(); }
bool ZOLSystemDataGetAccessibilityColorInversion() { return ZOLSystemData::GetAccessibilityColorInversion(); }
bool ZOLSystemDataGetArtAppStatus() { return ZOLSystemData::GetArtAppStatus(); }
bool ZOLSystemDataGetAmbientMode() { return ZOLSystemData::GetAmbientMode(); }
bool ZOLSystemDataEnableZOLConcurrentMode(std::string appid)
{
    return ZOLSystemData::EnableZOLConcurrentMode(std::move(appid));
}
bool ZOLSystemDataDisableZOLConcurrentMode(std::string appid)
{
    return ZOLSystemData::DisableZOLConcurrentMode(std::move(appid));
}
bool ZOLSystemDataGetZOLConcurrentAppList(std::vector<std::string>& list)
{
    return ZOLSystemData::GetZOLConcurrentAppList(list);
}

int ZOLSystemDataNotifyRegisterZOLConcurrentAppListCallback(ZOLStringCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterZOLConcurrentAppListCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterZOLConcurrentAppListCallback(ZOLStringCallback callback)
{
    return ZOLSystemDataNotify::UnregisterZOLConcurrentAppListCallback(callback);
}
int ZOLSystemDataNotifyRegisterDravixResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterDravixResetCountCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterDravixResetCountCallback(ZOLIntCallback callback)
{
    return ZOLSystemDataNotify::UnregisterDravixResetCountCallback(callback);
}
int ZOLSystemDataNotifyRegisterServiceResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterServiceResetCountCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterServiceResetCountCallback(ZOLIntCallback callback)
{
    return ZOLSystemDataNotify::UnregisterServiceResetCountCallback(callback);
}
int ZOLSystemDataNotifyRegisterFactoryResetCountCallback(ZOLIntCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterFactoryResetCountCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterFactoryResetCountCallback(ZOLIntCallback callback)
{
    return ZOLSystemDataNotify::UnregisterFactoryResetCountCallback(callback);
}
int ZOLSystemDataNotifyRegisterWebAppUninstallCallback(ZOLStringCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterWebAppUninstallCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterWebAppUninstallCallback(ZOLStringCallback callback)
{
    return ZOLSystemDataNotify::UnregisterWebAppUninstallCallback(callback);
}
int ZOLSystemDataNotifyRegisterWebAppInstallCallback(ZOLStringCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterWebAppInstallCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterWebAppInstallCallback(ZOLStringCallback callback)
{
    return ZOLSystemDataNotify::UnregisterWebAppInstallCallback(callback);
}
int ZOLSystemDataNotifyRegisterOSDCountryCallback(ZOLStringCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterOSDCountryCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterOSDCountryCallback(ZOLStringCallback callback)
{
    return ZOLSystemDataNotify::UnregisterOSDCountryCallback(callback);
}
int ZOLSystemDataNotifyRegisterBackgroundVolumeCallback(ZOLIntCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterBackgroundVolumeCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterBackgroundVolumeCallback(ZOLIntCallback callback)
{
    return ZOLSystemDataNotify::UnregisterBackgroundVolumeCallback(callback);
}
int ZOLSystemDataNotifyRegisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterZOLSituationalHintSupportedCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback)
{
    return ZOLSystemDataNotify::UnregisterZOLSituationalHintSupportedCallback(callback);
}
int ZOLSystemDataNotifyRegisterZOLLanguageCallback(ZOLStringCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterZOLLanguageCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterZOLLanguageCallback(ZOLStringCallback callback)
{
    return ZOLSystemDataNotify::UnregisterZOLLanguageCallback(callback);
}
int ZOLSystemDataNotifyRegisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterZOLDefaultAssistantAppidCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback)
{
    return ZOLSystemDataNotify::UnregisterZOLDefaultAssistantAppidCallback(callback);
}
int ZOLSystemDataNotifyRegisterZOLActivatedCallback(ZOLBoolCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterZOLActivatedCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterZOLActivatedCallback(ZOLBoolCallback callback)
{
    return ZOLSystemDataNotify::UnregisterZOLActivatedCallback(callback);
}
int ZOLSystemDataNotifyRegisterZOLMultipleModeCallback(ZOLBoolCallback callback, void* userData)
{
    return ZOLSystemDataNotify::RegisterZOLMultipleModeCallback(callback, userData);
}
int ZOLSystemDataNotifyUnregisterZOLMultipleModeCallback(ZOLBoolCallback callback)
{
    return ZOLSystemDataNotify::UnregisterZOLMultipleModeCallback(callback);
}
