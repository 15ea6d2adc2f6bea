/// @file
/// The TV's system data, read and written through the platform's key-value store, for C++ (C++11 or later).
///
/// This header also includes the free functions: setString, getString, setInt, getInt, setBool and getBool
/// (ZOLTypedKeys.h) and SetZOLConcurrentMode (ZOLConcurrentMode.h). Only toString is separate, in ZOLJson.h, because it
/// needs RapidJSON.
#ifndef ZOL_SYSTEM_DATA_H
#define ZOL_SYSTEM_DATA_H

#include <string>
#include <vector>

#include "ZOLConcurrentMode.h"
#include "ZOLExport.h"
#include "ZOLTypedKeys.h"

/// Getters and setters of the TV's system data, and the list of apps in concurrent mode.
///
/// Every operation except the three for the app list reads or writes one fixed vconf key, named in its comment. It does
/// so on every call; no value is cached. The settings are the rows of ZOLSettings.h, and src/ZOLSystemDataClass.cpp
/// defines their operations from these rows with one macro, ACCESSORS. capi-zol-tv.h has each operation as a flat
/// function, named ZOLSystemData plus the operation's name. Every access writes to the log under the tag "libZOL".
///
/// Results:
/// - A getter with a reference parameter returns true when it has read the key into the parameter. It returns false and
///   leaves the parameter unchanged when the key is missing, has another type, or vconf refuses the read.
/// - A boolean getter returns the value; only a stored 1 is true. It also returns false when the key cannot be read;
///   only the log shows the difference.
/// - A string setter returns false for an empty value, which is not written. Otherwise it returns true, even when vconf
///   refuses the write. The text is stored up to its first NUL.
/// - A boolean setter returns whether vconf accepted the write.
///
/// Errors: the only exception is std::bad_alloc, when a string cannot be copied. Nothing is retried.
///
/// Threads: any thread may call every operation at any time; no locking is needed.
///
/// @code
/// std::string language;
/// if (!ZOLSystemData::GetOSDLanguage(language)) language = "en_GB";  // not set yet
/// if (ZOLSystemData::GetZOLActivated()) ZOLSystemData::SetZOLLanguage("de-DE");
/// ZOLSystemData::EnableZOLConcurrentMode("org.example.assistant");
/// std::vector<std::string> apps;
/// ZOLSystemData::GetZOLConcurrentAppList(apps);
/// @endcode
class ZOL_API ZOLSystemData {
public:
    ZOLSystemData() = delete;

    /// @name Strings that can be read and written
    /// @{

    /// Reads the always-on-voice mode setter: "db/multi-assistant/aov_mode_setter".
    static bool GetAovModeSetter(std::string& value);
    /// Writes the always-on-voice mode setter: "db/multi-assistant/aov_mode_setter".
    static bool SetAovModeSetter(std::string value);
    /// Reads the on-screen language: "db/menu_widget/language".
    static bool GetOSDLanguage(std::string& value);
    /// Writes the on-screen language: "db/menu_widget/language".
    static bool SetOSDLanguage(std::string value);
    /// Reads the assistant's far-field setting: "db/menu/voice/assistant_farfield".
    static bool GetAssistantFarField(std::string& value);
    /// Writes the assistant's far-field setting: "db/menu/voice/assistant_farfield".
    static bool SetAssistantFarField(std::string value);
    /// Reads whether situational hints are supported, as text: "db/multi-assistant/situational_hint_supported".
    static bool GetZOLSituationalHintSupported(std::string& value);
    /// Writes whether situational hints are supported, as text: "db/multi-assistant/situational_hint_supported".
    static bool SetZOLSituationalHintSupported(std::string value);
    /// Reads the assistant language: "db/multi-assistant/zol_language".
    static bool GetZOLLanguage(std::string& value);
    /// Writes the assistant language: "db/multi-assistant/zol_language".
    static bool SetZOLLanguage(std::string value);
    /// Reads the app id of the default assistant: "db/multi-assistant/default_assistant_appid".
    static bool GetZOLDefaultAssistantAppid(std::string& value);
    /// Writes the app id of the default assistant: "db/multi-assistant/default_assistant_appid".
    static bool SetZOLDefaultAssistantAppid(std::string value);
    /// @}

    /// @name Strings that can only be read
    /// @{

    /// Reads the web app uninstalled last: "memory/was/app_uninstall".
    static bool GetWebAppUninstall(std::string& value);
    /// Reads the web app installed last: "memory/was/app_install".
    static bool GetWebAppInstall(std::string& value);
    /// Reads the multiview mode: "memory/multiscreen/ui_mode".
    static bool GetMultiViewMode(std::string& value);
    /// Reads the TV's model id: "db/comss/modelid".
    static bool GetModelId(std::string& value);
    /// Reads the TV's device name: "db/menu/network/devicename/tv_name".
    static bool GetTVName(std::string& value);
    /// Reads the on-screen country code: "db/comss/countrycode".
    static bool GetOSDCountry(std::string& value);
    /// @}

    /// @name The integer that can only be read
    /// @{

    /// Reads the voice guide's background volume as stored by the TV:
    /// "db/menu/system/accessibility/voiceguide/tv_bg_volume".
    static bool GetBackgroundVolume(int& value);
    /// @}

    /// @name Switches that can be read and written; the Is and Get forms are the same
    /// @{

    /// Writes whether the assistant is activated: "db/multi-assistant/activated".
    static bool SetZOLActivated(bool value);
    /// Reads whether the assistant is activated: "db/multi-assistant/activated".
    static bool GetZOLActivated();
    /// Reads whether the assistant is activated: "db/multi-assistant/activated".
    static bool IsZOLActivated();
    /// Writes whether several assistants may be used: "db/multi-assistant/multiple_mode".
    static bool SetZOLMultipleMode(bool value);
    /// Reads whether several assistants may be used: "db/multi-assistant/multiple_mode".
    static bool GetZOLMultipleMode();
    /// Reads whether several assistants may be used: "db/multi-assistant/multiple_mode".
    static bool IsZOLMultipleMode();
    /// @}

    /// @name Switches that can only be read
    /// @{

    /// Reads the power-off state: "db/menu/system/power_control/PowerOff_Status".
    static bool GetPowerOffStatus();
    /// Reads whether audio goes to several outputs: "db/btapp/audio_multi_output_on_off".
    static bool GetMultiOutputAudio();
    /// Reads the voice guide switch: "db/setting/accessibility/tts".
    static bool GetAccessibilityVoiceGuide();
    /// Reads the audio description switch: "db/menu/system/accessibility/audio_description".
    static bool GetAccessibilityAudioDescription();
    /// Reads the high contrast switch: "db/menu/system/accessibility/highcontrast".
    static bool GetAccessibilityHighContrast();
    /// Reads the grayscale switch: "db/menu/system/accessibility/grayscale".
    static bool GetAccessibilityGrayScale();
    /// Reads the enlarge (focus zoom) switch: "db/menu/system/accessibility/focuszoom".
    static bool GetAccessibilityEnlarge();
    /// Reads the colour inversion switch: "db/menu/system/accessibility/nagative_colors".
    static bool GetAccessibilityColorInversion();
    /// Reads the art app state: "db/art-app/art_app_status".
    static bool GetArtAppStatus();
    /// Reads the ambient mode state: "db/setting/ambient_mode".
    static bool GetAmbientMode();
    /// @}

    /// @name Apps in concurrent mode
    /// The list is one JSON text in "db/multi-assistant/alexa_language"; ZOLConcurrentMode.h shows its form. It is
    /// read, changed and written back without a lock: when two changes overlap, the later write wins and the other
    /// change is lost.
    /// @{

    /// Puts an app in concurrent mode: its entry becomes "on".
    /// @param appid  The app's id, stored up to its first NUL.
    /// @return always true, even when vconf refuses the write.
    static bool EnableZOLConcurrentMode(std::string appid);
    /// Takes an app out of concurrent mode: its entry becomes "off".
    /// @param appid  The app's id, stored up to its first NUL.
    /// @return always true, even when vconf refuses the write.
    static bool DisableZOLConcurrentMode(std::string appid);
    /// Appends the ids of the apps in concurrent mode to `list`, in the order of the stored list.
    /// @param[in,out] list  The ids are added at its end. Unchanged when the result is false.
    /// @return whether the stored text was read and is a JSON array.
    static bool GetZOLConcurrentAppList(std::vector<std::string>& list);
    /// @}
};

#endif
