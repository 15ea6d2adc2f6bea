/// @file
/// The name of every vconf key that the library reads, writes or watches, for C++. The library and the tools take the
/// names from here. They are the platform's own and are used exactly as they are, including "nagative_colors" and
/// "alexa_language".
#ifndef ZOL_VCONF_KEYS_H
#define ZOL_VCONF_KEYS_H

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-const-variable"  // nobody uses all of them

/// The keys, each by the name of its operations.
namespace ZOLVconfKey {

/// String keys with a getter and a setter.
/// @{
constexpr char AovModeSetter[] = "db/multi-assistant/aov_mode_setter";
constexpr char OSDLanguage[] = "db/menu_widget/language";
constexpr char AssistantFarField[] = "db/menu/voice/assistant_farfield";
constexpr char ZOLSituationalHintSupported[] = "db/multi-assistant/situational_hint_supported";
constexpr char ZOLLanguage[] = "db/multi-assistant/zol_language";
constexpr char ZOLDefaultAssistantAppid[] = "db/multi-assistant/default_assistant_appid";
/// @}

/// String keys with a getter.
/// @{
constexpr char WebAppUninstall[] = "memory/was/app_uninstall";
constexpr char WebAppInstall[] = "memory/was/app_install";
constexpr char MultiViewMode[] = "memory/multiscreen/ui_mode";
constexpr char ModelId[] = "db/comss/modelid";
constexpr char TVName[] = "db/menu/network/devicename/tv_name";
constexpr char OSDCountry[] = "db/comss/countrycode";
/// @}

/// Integer key with a getter.
/// @{
constexpr char BackgroundVolume[] = "db/menu/system/accessibility/voiceguide/tv_bg_volume";
/// @}

/// Boolean keys with getters and a setter.
/// @{
constexpr char ZOLActivated[] = "db/multi-assistant/activated";
constexpr char ZOLMultipleMode[] = "db/multi-assistant/multiple_mode";
/// @}

/// Boolean keys with a getter.
/// @{
constexpr char PowerOffStatus[] = "db/menu/system/power_control/PowerOff_Status";
constexpr char MultiOutputAudio[] = "db/btapp/audio_multi_output_on_off";
constexpr char AccessibilityVoiceGuide[] = "db/setting/accessibility/tts";
constexpr char AccessibilityAudioDescription[] = "db/menu/system/accessibility/audio_description";
constexpr char AccessibilityHighContrast[] = "db/menu/system/accessibility/highcontrast";
constexpr char AccessibilityGrayScale[] = "db/menu/system/accessibility/grayscale";
constexpr char AccessibilityEnlarge[] = "db/menu/system/accessibility/focuszoom";
constexpr char AccessibilityColorInversion[] = "db/menu/system/accessibility/nagative_colors";
constexpr char ArtAppStatus[] = "db/art-app/art_app_status";
constexpr char AmbientMode[] = "db/setting/ambient_mode";
/// @}

/// The concurrent-mode app list, a JSON text in a string key.
/// @{
constexpr char ZOLConcurrentAppList[] = "db/multi-assistant/alexa_language";
/// @}

/// Integer keys that are only watched.
/// @{
constexpr char DravixResetCount[] = "db/dravix/reset_count";
constexpr char ServiceResetCount[] = "db/factory/service_reset_count";
constexpr char FactoryResetCount[] = "db/factory/factory_reset_count";
/// @}

}  // namespace ZOLVconfKey

#pragma GCC diagnostic pop

#endif
