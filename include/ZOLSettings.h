/// @file
/// The catalogue: every setting of the TV, once. Keys, operations and zolctl's list of settings are made from it.
#ifndef ZOL_SETTINGS_H
#define ZOL_SETTINGS_H

/// Expands to `ROW(name, type, read, write, watch, key, description)` for each setting.
///
/// | column      | meaning                                                                                            |
/// |-------------|----------------------------------------------------------------------------------------------------|
/// | name        | GetOSDLanguage and SetOSDLanguage belong to the setting OSDLanguage                                |
/// | type        | BOOL, INT or STRING; the key holds no other type                                                   |
/// | read        | READ: GetNAME reads the key. READ_IS: IsNAME does so, too. READ_LIST: GetNAME lists apps. Or empty |
/// | write       | WRITE: SetNAME writes the key. Or empty                                                            |
/// | watch       | WATCH: RegisterNAMECallback, UnregisterNAMECallback and ZOLWatch::NAME report changes. Or empty    |
/// | key         | the vconf key, exactly as the platform spells it, including "nagative_colors" and "alexa_language" |
/// | description | what the setting is                                                                                |
///
/// CONTRIBUTING.md lists what else a new row needs.
// clang-format off
#define ZOL_SETTINGS(ROW)                                                                                              \
    ROW(AovModeSetter,                 STRING, READ,      WRITE,      ,                                                \
        "db/multi-assistant/aov_mode_setter", "the always-on-voice mode")                                              \
    ROW(OSDLanguage,                   STRING, READ,      WRITE,      ,                                                \
        "db/menu_widget/language", "the on-screen language")                                                           \
    ROW(AssistantFarField,             STRING, READ,      WRITE,      ,                                                \
        "db/menu/voice/assistant_farfield", "the assistant's far-field setting")                                       \
    ROW(ZOLSituationalHintSupported,   STRING, READ,      WRITE, WATCH,                                                \
        "db/multi-assistant/situational_hint_supported", "whether situational hints are supported")                    \
    ROW(ZOLLanguage,                   STRING, READ,      WRITE, WATCH,                                                \
        "db/multi-assistant/zol_language", "the assistant language")                                                   \
    ROW(ZOLDefaultAssistantAppid,      STRING, READ,      WRITE, WATCH,                                                \
        "db/multi-assistant/default_assistant_appid", "the app id of the default assistant")                           \
    ROW(WebAppUninstall,               STRING, READ,           , WATCH,                                                \
        "memory/was/app_uninstall", "the web app that was uninstalled last")                                           \
    ROW(WebAppInstall,                 STRING, READ,           , WATCH,                                                \
        "memory/was/app_install", "the web app that was installed last")                                               \
    ROW(MultiViewMode,                 STRING, READ,           ,      ,                                                \
        "memory/multiscreen/ui_mode", "the multiview mode")                                                            \
    ROW(ModelId,                       STRING, READ,           ,      ,                                                \
        "db/comss/modelid", "the TV's model id")                                                                       \
    ROW(TVName,                        STRING, READ,           ,      ,                                                \
        "db/menu/network/devicename/tv_name", "the TV's device name")                                                  \
    ROW(OSDCountry,                    STRING, READ,           , WATCH,                                                \
        "db/comss/countrycode", "the on-screen country code")                                                          \
    ROW(BackgroundVolume,              INT,    READ,           , WATCH,                                                \
        "db/menu/system/accessibility/voiceguide/tv_bg_volume", "the background volume of the voice guide")            \
    ROW(ZOLActivated,                  BOOL,   READ_IS,   WRITE, WATCH,                                                \
        "db/multi-assistant/activated", "whether the assistant is activated")                                          \
    ROW(ZOLMultipleMode,               BOOL,   READ_IS,   WRITE, WATCH,                                                \
        "db/multi-assistant/multiple_mode", "whether several assistants may be used")                                  \
    ROW(PowerOffStatus,                BOOL,   READ,           ,      ,                                                \
        "db/menu/system/power_control/PowerOff_Status", "the power-off state")                                         \
    ROW(MultiOutputAudio,              BOOL,   READ,           ,      ,                                                \
        "db/btapp/audio_multi_output_on_off", "whether audio goes to several outputs")                                 \
    ROW(AccessibilityVoiceGuide,       BOOL,   READ,           ,      ,                                                \
        "db/setting/accessibility/tts", "whether the voice guide is on")                                               \
    ROW(AccessibilityAudioDescription, BOOL,   READ,           ,      ,                                                \
        "db/menu/system/accessibility/audio_description", "whether audio description is on")                           \
    ROW(AccessibilityHighContrast,     BOOL,   READ,           ,      ,                                                \
        "db/menu/system/accessibility/highcontrast", "whether high contrast is on")                                    \
    ROW(AccessibilityGrayScale,        BOOL,   READ,           ,      ,                                                \
        "db/menu/system/accessibility/grayscale", "whether grayscale is on")                                           \
    ROW(AccessibilityEnlarge,          BOOL,   READ,           ,      ,                                                \
        "db/menu/system/accessibility/focuszoom", "whether enlargement (focus zoom) is on")                            \
    ROW(AccessibilityColorInversion,   BOOL,   READ,           ,      ,                                                \
        "db/menu/system/accessibility/nagative_colors", "whether colour inversion is on")                              \
    ROW(ArtAppStatus,                  BOOL,   READ,           ,      ,                                                \
        "db/art-app/art_app_status", "the state of the art app")                                                       \
    ROW(AmbientMode,                   BOOL,   READ,           ,      ,                                                \
        "db/setting/ambient_mode", "the state of ambient mode")                                                        \
    ROW(ZOLConcurrentAppList,          STRING, READ_LIST,      , WATCH,                                                \
        "db/multi-assistant/alexa_language", "the apps in concurrent mode, as a JSON array")                           \
    ROW(DravixResetCount,              INT,             ,      , WATCH,                                                \
        "db/dravix/reset_count", "how many times Dravix was reset")                                                    \
    ROW(ServiceResetCount,             INT,             ,      , WATCH,                                                \
        "db/factory/service_reset_count", "how many service resets there were")                                        \
    ROW(FactoryResetCount,             INT,             ,      , WATCH,                                                \
        "db/factory/factory_reset_count", "how many factory resets there were")
// clang-format on

#endif
