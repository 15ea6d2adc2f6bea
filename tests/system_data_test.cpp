#include <climits>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "ZOLSystemData.h"
#include "ZOLTypedKeys.h"
#include "capi-zol-tv.h"
#include "platform_mock.h"

using namespace std::string_literals;
using mock::boolean;
using mock::integer;
using mock::text;

namespace {

std::string line(const std::string& function, const std::string& message)
{
    return function + ": DLOG_ERROR \"" + message + "\"";
}

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): joins literals.
#define FORMAT(message) "%s: %s[%d]\t DLOG_ERROR \"" message "\"\n"

// Compares what the library did since the last time, and looks at the raw form of its log lines.
void did(const std::vector<std::string>& expected)
{
    static const std::set<std::pair<std::string, std::string>> formats = {
        {"setString", FORMAT("value is empty")},
        {"setString", FORMAT("key[%s] Value [%s]")},
        {"getString", FORMAT("vconf_get_str is failed")},
        {"getString", FORMAT("key[%s] Value [%s]")},
        {"setInt", FORMAT("key[%s] Value [%d]")},
        {"setInt", FORMAT("failed to set vconf key (%s)")},
        {"getInt", FORMAT("failed to get vconf key (%s)")},
        {"getInt", FORMAT("Background volume is %d")},
        {"setBool", FORMAT("key[%s] Value [%d]")},
        {"setBool", FORMAT("failed to set vconf key (%s)")},
        {"getBool", FORMAT("failed to get vconf key (%s)")},
        {"getBool", FORMAT("%s")},
    };
    EXPECT_EQ(expected, mock::takeEvents());
    for (const mock::Line& each : mock::takeLines()) {
        EXPECT_EQ("ZOLSystemDataClass.cpp", each.file);
        EXPECT_EQ(1U, formats.count({each.function, each.format})) << each.function << " " << each.format;
    }
}

// ---- typed keys -----------------------------------------------------------------------------------------------------

class TypedKeys : public mock::Test {};

TEST_F(TypedKeys, StringsAreStoredUpToTheirFirstNul)
{
    const std::string big(70000, 'x');
    const std::pair<std::string, std::string> texts[] = {
        {"%s%n", "%s%n"}, {big, big}, {"\xff\n", "\xff\n"}, {"a\0b"s, "a"}, {"\0b"s, ""}};
    std::string output = "a text too long to be kept inside the string object";
    for (const auto& [given, stored] : texts) {
        EXPECT_TRUE(setString("k", given));
        did({line("setString", "key[k] Value [" + stored + "]"), "vconf_set_str k=" + stored});
        EXPECT_TRUE(getString("k", output));
        EXPECT_EQ(stored, output);
        did({"vconf_get_str k", line("getString", "key[k] Value [" + stored + "]")});
    }
}

TEST_F(TypedKeys, IntegersOfAnySizeAreStored)
{
    int output = 7;
    for (const int value : {INT_MIN, -1, 0, INT_MAX}) {
        EXPECT_TRUE(setInt("k", value));
        did({line("setInt", "key[k] Value [" + std::to_string(value) + "]"),
             "vconf_set_int k=" + std::to_string(value)});
        EXPECT_TRUE(getInt("k", output));
        EXPECT_EQ(value, output);
        did({"vconf_get_int k", line("getInt", "Background volume is " + std::to_string(value))});
    }
    mock::refuse("vconf_set_int");
    EXPECT_FALSE(setInt("k", 5));
    did({line("setInt", "key[k] Value [5]"), "vconf_set_int k=5", line("setInt", "failed to set vconf key (k)")});
}

// A key of another type and one that vconf refuses to read are alike: the outputs stay as they are.
TEST_F(TypedKeys, UnreadableValuesAreNotHandedOut)
{
    for (const bool refused : {false, true}) {
        SCOPED_TRACE(refused);
        for (const char* function : {"vconf_get_str", "vconf_get_int", "vconf_get_bool"}) {
            mock::refuse(function, refused);
        }
        std::string output = "old";
        mock::put("k", refused ? text("new") : integer(1));
        EXPECT_FALSE(getString("k", output));
        EXPECT_EQ("old", output);
        did({"vconf_get_str k", line("getString", "vconf_get_str is failed")});
        int number = 7;
        mock::put("k", refused ? integer(1) : boolean(1));
        EXPECT_FALSE(getInt("k", number));
        EXPECT_EQ(7, number);
        did({"vconf_get_int k", line("getInt", "failed to get vconf key (k)")});
        mock::put("k", refused ? boolean(1) : integer(1));
        EXPECT_FALSE(getBool("k"));
        did({"vconf_get_bool k", line("getBool", "failed to get vconf key (k)")});
    }
}

// ---- catalogue ------------------------------------------------------------------------------------------------------

using StringGetter = bool (*)(std::string&);
using StringSetter = bool (*)(std::string);
using IntGetter = bool (*)(int&);
using BoolGetter = bool (*)();
using BoolSetter = bool (*)(bool);
using Form = std::variant<StringGetter, StringSetter, IntGetter, BoolGetter, BoolSetter>;

struct Operation {
    std::string name;
    Form ofClass, flat;
    std::string key;
};

// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): both forms are named after the one operation.
#define OPERATION(kind, name, key) \
    Operation { #name, static_cast < kind>(ZOLSystemData::name), static_cast < kind>(ZOLSystemData##name), key }

// Takes an operation through its results, and looks at what it does to its key and to no other.
struct Trial {
    std::string key;

    void operator()(StringGetter get) const
    {
        std::string value = "old";
        EXPECT_FALSE(get(value));
        EXPECT_EQ("old", value);
        did({"vconf_get_str " + key, line("getString", "vconf_get_str is failed")});
        mock::put(key, text("new"));
        EXPECT_TRUE(get(value));
        EXPECT_EQ("new", value);
        did({"vconf_get_str " + key, line("getString", "key[" + key + "] Value [new]")});
    }
    void operator()(StringSetter set) const
    {
        EXPECT_FALSE(set(""));
        did({line("setString", "value is empty")});
        for (const std::string value : {"new", "refused"}) {
            EXPECT_TRUE(set(value));
            did({line("setString", "key[" + key + "] Value [" + value + "]"), "vconf_set_str " + key + "=" + value});
            mock::refuse("vconf_set_str");
        }
    }
    void operator()(IntGetter get) const
    {
        int value = 7;
        EXPECT_FALSE(get(value));
        EXPECT_EQ(7, value);
        did({"vconf_get_int " + key, line("getInt", "failed to get vconf key (" + key + ")")});
        mock::put(key, integer(-3));
        EXPECT_TRUE(get(value));
        EXPECT_EQ(-3, value);
        did({"vconf_get_int " + key, line("getInt", "Background volume is -3")});
    }
    void operator()(BoolGetter get) const
    {
        EXPECT_FALSE(get());
        did({"vconf_get_bool " + key, line("getBool", "failed to get vconf key (" + key + ")")});
        for (const int stored : {0, 1, 2, -1}) {
            mock::put(key, boolean(stored));
            EXPECT_EQ(stored == 1, get());
            did({"vconf_get_bool " + key, line("getBool", stored == 1 ? "true" : "false")});
        }
    }
    void operator()(BoolSetter set) const
    {
        for (const std::string number : {"1", "0"}) {
            EXPECT_TRUE(set(number == "1"));
            did({line("setBool", "key[" + key + "] Value [" + number + "]"), "vconf_set_bool " + key + "=" + number});
        }
        mock::refuse("vconf_set_bool");
        EXPECT_FALSE(set(true));
        did({line("setBool", "key[" + key + "] Value [1]"), "vconf_set_bool " + key + "=1",
             line("setBool", "failed to set vconf key (" + key + ")")});
    }
};

TEST(Catalogue, EveryOperationWorksOnItsKeyInBothForms)
{
    const Operation catalogue[] = {
        OPERATION(StringGetter, GetAovModeSetter, "db/multi-assistant/aov_mode_setter"),
        OPERATION(StringSetter, SetAovModeSetter, "db/multi-assistant/aov_mode_setter"),
        OPERATION(StringGetter, GetOSDLanguage, "db/menu_widget/language"),
        OPERATION(StringSetter, SetOSDLanguage, "db/menu_widget/language"),
        OPERATION(StringGetter, GetAssistantFarField, "db/menu/voice/assistant_farfield"),
        OPERATION(StringSetter, SetAssistantFarField, "db/menu/voice/assistant_farfield"),
        OPERATION(StringGetter, GetZOLSituationalHintSupported, "db/multi-assistant/situational_hint_supported"),
        OPERATION(StringSetter, SetZOLSituationalHintSupported, "db/multi-assistant/situational_hint_supported"),
        OPERATION(StringGetter, GetZOLLanguage, "db/multi-assistant/zol_language"),
        OPERATION(StringSetter, SetZOLLanguage, "db/multi-assistant/zol_language"),
        OPERATION(StringGetter, GetZOLDefaultAssistantAppid, "db/multi-assistant/default_assistant_appid"),
        OPERATION(StringSetter, SetZOLDefaultAssistantAppid, "db/multi-assistant/default_assistant_appid"),
        OPERATION(StringGetter, GetWebAppUninstall, "memory/was/app_uninstall"),
        OPERATION(StringGetter, GetWebAppInstall, "memory/was/app_install"),
        OPERATION(StringGetter, GetMultiViewMode, "memory/multiscreen/ui_mode"),
        OPERATION(StringGetter, GetModelId, "db/comss/modelid"),
        OPERATION(StringGetter, GetTVName, "db/menu/network/devicename/tv_name"),
        OPERATION(StringGetter, GetOSDCountry, "db/comss/countrycode"),
        OPERATION(IntGetter, GetBackgroundVolume, "db/menu/system/accessibility/voiceguide/tv_bg_volume"),
        OPERATION(BoolSetter, SetZOLActivated, "db/multi-assistant/activated"),
        OPERATION(BoolGetter, GetZOLActivated, "db/multi-assistant/activated"),
        OPERATION(BoolGetter, IsZOLActivated, "db/multi-assistant/activated"),
        OPERATION(BoolSetter, SetZOLMultipleMode, "db/multi-assistant/multiple_mode"),
        OPERATION(BoolGetter, GetZOLMultipleMode, "db/multi-assistant/multiple_mode"),
        OPERATION(BoolGetter, IsZOLMultipleMode, "db/multi-assistant/multiple_mode"),
        OPERATION(BoolGetter, GetPowerOffStatus, "db/menu/system/power_control/PowerOff_Status"),
        OPERATION(BoolGetter, GetMultiOutputAudio, "db/btapp/audio_multi_output_on_off"),
        OPERATION(BoolGetter, GetAccessibilityVoiceGuide, "db/setting/accessibility/tts"),
        OPERATION(BoolGetter, GetAccessibilityAudioDescription, "db/menu/system/accessibility/audio_description"),
        OPERATION(BoolGetter, GetAccessibilityHighContrast, "db/menu/system/accessibility/highcontrast"),
        OPERATION(BoolGetter, GetAccessibilityGrayScale, "db/menu/system/accessibility/grayscale"),
        OPERATION(BoolGetter, GetAccessibilityEnlarge, "db/menu/system/accessibility/focuszoom"),
        OPERATION(BoolGetter, GetAccessibilityColorInversion, "db/menu/system/accessibility/nagative_colors"),
        OPERATION(BoolGetter, GetArtAppStatus, "db/art-app/art_app_status"),
        OPERATION(BoolGetter, GetAmbientMode, "db/setting/ambient_mode"),
    };

    for (const Operation& operation : catalogue) {
        for (const Form& form : {operation.ofClass, operation.flat}) {
            SCOPED_TRACE(operation.name);
            mock::reset();
            std::visit(Trial{operation.key}, form);
        }
    }
}

}  // namespace
