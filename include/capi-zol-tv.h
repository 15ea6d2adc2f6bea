/// @file
/// The library as flat functions: each operation of ZOLSystemData and ZOLSystemDataNotify under a plain, unmangled
/// name, which is the class name followed by the operation's name. Parameters, results, errors and threads are those of
/// the class operation; see ZOLSystemData.h and ZOLSystemDataNotify.h, which this header includes. The functions are
/// for C++ callers (C++11 or later) that look symbols up by name: despite the "capi" in the name, parameters have C++
/// types. Setters take their string by value.
#ifndef CAPI_ZOL_TV_H
#define CAPI_ZOL_TV_H

#include <string>
#include <vector>

#include "ZOLExport.h"
#include "ZOLSystemData.h"
#include "ZOLSystemDataNotify.h"

extern "C" {

ZOL_API bool ZOLSystemDataGetAovModeSetter(std::string& value);
ZOL_API bool ZOLSystemDataSetAovModeSetter(std::string value);
ZOL_API bool ZOLSystemDataGetOSDLanguage(std::string& value);
ZOL_API bool ZOLSystemDataSetOSDLanguage(std::string value);
ZOL_API bool ZOLSystemDataGetAssistantFarField(std::string& value);
ZOL_API bool ZOLSystemDataSetAssistantFarField(std::string value);
ZOL_API bool ZOLSystemDataGetZOLSituationalHintSupported(std::string& value);
ZOL_API bool ZOLSystemDataSetZOLSituationalHintSupported(std::string value);
ZOL_API bool ZOLSystemDataGetZOLLanguage(std::string& value);
ZOL_API bool ZOLSystemDataSetZOLLanguage(std::string value);
ZOL_API bool ZOLSystemDataGetZOLDefaultAssistantAppid(std::string& value);
ZOL_API bool ZOLSystemDataSetZOLDefaultAssistantAppid(std::string value);
ZOL_API bool ZOLSystemDataGetWebAppUninstall(std::string& value);
ZOL_API bool ZOLSystemDataGetWebAppInstall(std::string& value);
ZOL_API bool ZOLSystemDataGetMultiViewMode(std::string& value);
ZOL_API bool ZOLSystemDataGetModelId(std::string& value);
ZOL_API bool ZOLSystemDataGetTVName(std::string& value);
ZOL_API bool ZOLSystemDataGetOSDCountry(std::string& value);
ZOL_API bool ZOLSystemDataGetBackgroundVolume(int& value);
ZOL_API bool ZOLSystemDataSetZOLActivated(bool value);
ZOL_API bool ZOLSystemDataGetZOLActivated();
ZOL_API bool ZOLSystemDataIsZOLActivated();
ZOL_API bool ZOLSystemDataSetZOLMultipleMode(bool value);
ZOL_API bool ZOLSystemDataGetZOLMultipleMode();
ZOL_API bool ZOLSystemDataIsZOLMultipleMode();
ZOL_API bool ZOLSystemDataGetPowerOffStatus();
ZOL_API bool ZOLSystemDataGetMultiOutputAudio();
ZOL_API bool ZOLSystemDataGetAccessibilityVoiceGuide();
ZOL_API bool ZOLSystemDataGetAccessibilityAudioDescription();
ZOL_API bool ZOLSystemDataGetAccessibilityHighContrast();
ZOL_API bool ZOLSystemDataGetAccessibilityGrayScale();
ZOL_API bool ZOLSystemDataGetAccessibilityEnlarge();
ZOL_API bool ZOLSystemDataGetAccessibilityColorInversion();
ZOL_API bool ZOLSystemDataGetArtAppStatus();
ZOL_API bool ZOLSystemDataGetAmbientMode();
ZOL_API bool ZOLSystemDataEnableZOLConcurrentMode(std::string appid);
ZOL_API bool ZOLSystemDataDisableZOLConcurrentMode(std::string appid);
ZOL_API bool ZOLSystemDataGetZOLConcurrentAppList(std::vector<std::string>& list);

ZOL_API int ZOLSystemDataNotifyRegisterZOLConcurrentAppListCallback(ZOLStringCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterZOLConcurrentAppListCallback(ZOLStringCallback callback);
ZOL_API int ZOLSystemDataNotifyRegisterDravixResetCountCallback(ZOLIntCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterDravixResetCountCallback(ZOLIntCallback callback);
ZOL_API int ZOLSystemDataNotifyRegisterServiceResetCountCallback(ZOLIntCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterServiceResetCountCallback(ZOLIntCallback callback);
ZOL_API int ZOLSystemDataNotifyRegisterFactoryResetCountCallback(ZOLIntCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterFactoryResetCountCallback(ZOLIntCallback callback);
ZOL_API int ZOLSystemDataNotifyRegisterWebAppUninstallCallback(ZOLStringCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterWebAppUninstallCallback(ZOLStringCallback callback);
ZOL_API int ZOLSystemDataNotifyRegisterWebAppInstallCallback(ZOLStringCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterWebAppInstallCallback(ZOLStringCallback callback);
ZOL_API int ZOLSystemDataNotifyRegisterOSDCountryCallback(ZOLStringCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterOSDCountryCallback(ZOLStringCallback callback);
ZOL_API int ZOLSystemDataNotifyRegisterBackgroundVolumeCallback(ZOLIntCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterBackgroundVolumeCallback(ZOLIntCallback callback);
ZOL_API int ZOLSystemDataNotifyRegisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterZOLSituationalHintSupportedCallback(ZOLStringCallback callback);
ZOL_API int ZOLSystemDataNotifyRegisterZOLLanguageCallback(ZOLStringCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterZOLLanguageCallback(ZOLStringCallback callback);
ZOL_API int ZOLSystemDataNotifyRegisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterZOLDefaultAssistantAppidCallback(ZOLStringCallback callback);
ZOL_API int ZOLSystemDataNotifyRegisterZOLActivatedCallback(ZOLBoolCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterZOLActivatedCallback(ZOLBoolCallback callback);
ZOL_API int ZOLSystemDataNotifyRegisterZOLMultipleModeCallback(ZOLBoolCallback callback, void* userData);
ZOL_API int ZOLSystemDataNotifyUnregisterZOLMultipleModeCallback(ZOLBoolCallback callback);

}  // extern "C"

#endif
