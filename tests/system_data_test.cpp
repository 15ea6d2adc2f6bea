// The typed keys, the operations of one key each, and the app list, over the platform mock.

#include <rapidjson/document.h>

#include <climits>
#include <type_traits>

#include "ZOLJson.h"
#include "capi-zol-tv.h"
#include "platform_mock.h"

using mock::Events;
using namespace std::string_literals;

namespace {

std::string line(const std::string& function, const std::string& message)
{
    return mock::line("ZOLSystemDataClass.cpp", function, message);
}

// Takes an operation through its results, and looks at all that it does, to its key and to no other.
struct Trial {
    std::string key;
    std::string big = std::string(70000, 'x');
    std::vector<std::string> texts = {"%s%n", big, "\xff\n", "a\0b"s, "\0b"s};  // are stored up to a NUL
    std::string unread = "failed to get vconf key (" + key + ")";

    void operator()(bool (*get)(std::string&)) const
    {
        std::vector<std::pair<mock::Value, std::string>> rows;
        for (const std::string& given : texts) {
            rows.emplace_back(given, given.c_str());
        }
        expectReads<std::string>(get, "vconf_get_str", "getString", big, "vconf_get_str is failed", rows,
                                 [this](const std::string& value) { return written(value); });
    }
    void operator()(bool (*get)(int&)) const
    {
        expectReads<int>(get, "vconf_get_int", "getInt", 7, unread,
                         {{INT_MIN, INT_MIN}, {0, 0}, {INT_MAX, INT_MAX}, {std::monostate(), 0}},
                         [](int value) { return "Background volume is " + std::to_string(value); });
    }
    void operator()(bool (*get)()) const
    {
        expectReads<bool>([get](bool& value) { return value = get(); }, "vconf_get_bool", "getBool", false, unread,
                          {{0, false}, {1, true}, {2, false}, {-1, false}, {std::monostate(), false}},
                          [](bool value) { return value ? "true" : "false"; });
    }
    void operator()(bool (*set)(std::string)) const
    {
        EXPECT_FALSE(set(""));
        mock::expectEvents({line("setString", "value is empty")});
        mock::refuse("vconf_set_str");  // makes no difference
        for (const std::string& given : texts) {
            EXPECT_TRUE(set(given));
            mock::expectEvents(writing(given.substr(0, given.find('\0'))));
        }
    }
    void operator()(bool (*set)(int)) const { expectWrites(set, "setInt", "vconf_set_int", {INT_MIN, 0, INT_MAX}); }
    void operator()(bool (*set)(bool)) const { expectWrites(set, "setBool", "vconf_set_bool", {0, 1}); }

    // What the log says of a text that is written, and of one that is read.
    std::string written(const std::string& value) const { return "key[" + key + "] Value [" + value + "]"; }
    Events writing(const std::string& value, const std::string& function = "setString",
                   const std::string& call = "vconf_set_str") const
    {
        return {line(function, written(value)), call + " " + key + "=" + value};
    }

    // The rows are what is stored and what is read then.
    template <class Value>
    void expectReads(const std::function<bool(Value&)>& get, const std::string& call, const std::string& function,
                     const Value& kept, const std::string& failure,
                     const std::vector<std::pair<mock::Value, Value>>& rows,
                     const std::function<std::string(const Value&)>& message) const
    {
        Value value = kept;
        for (const int refusal : {-1, 1}) {
            mock::put(key, 1);
            mock::refuse(call, refusal);
            EXPECT_FALSE(get(value));
            EXPECT_EQ(kept, value);
            mock::expectEvents({call + " " + key, line(function, failure)});
        }
        for (const auto& [stored, expected] : rows) {
            mock::put(key, stored);
            const bool result = !std::is_same_v<Value, bool> || expected != Value();  // a switch is its own result
            EXPECT_EQ(result, get(value));
            EXPECT_EQ(expected, value);
            mock::expectEvents({call + " " + key, line(function, message(expected))});
        }
    }
    template <class Set>
    void expectWrites(Set set, const std::string& function, const std::string& call,
                      const std::vector<int>& values) const
    {
        for (const int value : values) {
            for (const int result : {0, -1, 1}) {
                mock::refuse(call, result);
                EXPECT_EQ(result == 0, set(value));
                const Events failing(result == 0 ? 0 : 1, line(function, "failed to set vconf key (" + key + ")"));
                mock::expectEvents(writing(std::to_string(value), function, call) + failing);
            }
        }
    }
};

template <class... Forms>
void tryAll(const char* key, Forms... forms)
{
    SCOPED_TRACE(key);
    const Trial trial{key};
    ((mock::reset(), trial(forms)), ...);
}

TEST(SystemData, EveryOperationWorksOnItsKeyInBothForms)
{
    static constexpr char kAny[] = "any/%s%n/key";
#define BOTH(name) ZOLSystemData::name, ZOLSystemData##name
    tryAll(kAny, [](std::string& value) { return getString(kAny, value); });
    tryAll(kAny, [](std::string value) { return setString(kAny, std::move(value)); });
    tryAll(
        kAny, [](int& value) { return getInt(kAny, value); }, [](int value) { return setInt(kAny, value); });
    tryAll(
        kAny, [] { return getBool(kAny); }, [](bool value) { return setBool(kAny, value); });
    tryAll("db/multi-assistant/aov_mode_setter", BOTH(GetAovModeSetter), BOTH(SetAovModeSetter));
    tryAll("db/menu_widget/language", BOTH(GetOSDLanguage), BOTH(SetOSDLanguage));
    tryAll("db/menu/voice/assistant_farfield", BOTH(GetAssistantFarField), BOTH(SetAssistantFarField));
    tryAll("db/multi-assistant/situational_hint_supported", BOTH(GetZOLSituationalHintSupported),
           BOTH(SetZOLSituationalHintSupported));
    tryAll("db/multi-assistant/zol_language", BOTH(GetZOLLanguage), BOTH(SetZOLLanguage));
    tryAll("db/multi-assistant/default_assistant_appid", BOTH(GetZOLDefaultAssistantAppid),
           BOTH(SetZOLDefaultAssistantAppid));
    tryAll("memory/was/app_uninstall", BOTH(GetWebAppUninstall));
    tryAll("memory/was/app_install", BOTH(GetWebAppInstall));
    tryAll("memory/multiscreen/ui_mode", BOTH(GetMultiViewMode));
    tryAll("db/comss/modelid", BOTH(GetModelId));
    tryAll("db/menu/network/devicename/tv_name", BOTH(GetTVName));
    tryAll("db/comss/countrycode", BOTH(GetOSDCountry));
    tryAll("db/menu/system/accessibility/voiceguide/tv_bg_volume", BOTH(GetBackgroundVolume));
    tryAll("db/multi-assistant/activated", BOTH(GetZOLActivated), BOTH(IsZOLActivated), BOTH(SetZOLActivated));
    tryAll("db/multi-assistant/multiple_mode", BOTH(GetZOLMultipleMode), BOTH(IsZOLMultipleMode),
           BOTH(SetZOLMultipleMode));
    tryAll("db/menu/system/power_control/PowerOff_Status", BOTH(GetPowerOffStatus));
    tryAll("db/btapp/audio_multi_output_on_off", BOTH(GetMultiOutputAudio));
    tryAll("db/setting/accessibility/tts", BOTH(GetAccessibilityVoiceGuide));
    tryAll("db/menu/system/accessibility/audio_description", BOTH(GetAccessibilityAudioDescription));
    tryAll("db/menu/system/accessibility/highcontrast", BOTH(GetAccessibilityHighContrast));
    tryAll("db/menu/system/accessibility/grayscale", BOTH(GetAccessibilityGrayScale));
    tryAll("db/menu/system/accessibility/focuszoom", BOTH(GetAccessibilityEnlarge));
    tryAll("db/menu/system/accessibility/nagative_colors", BOTH(GetAccessibilityColorInversion));
    tryAll("db/art-app/art_app_status", BOTH(GetArtAppStatus));
    tryAll("db/setting/ambient_mode", BOTH(GetAmbientMode));
}

// A foreign function interface declares a string passed by value as the reference that it is to the compiler.
TEST(SystemData, FlatFunctionsLeaveTheirStringUnchanged)
{
    using Declared = bool (*)(std::string);
    const Declared functions[] = {ZOLSystemDataSetAovModeSetter,        ZOLSystemDataSetOSDLanguage,
                                  ZOLSystemDataSetAssistantFarField,    ZOLSystemDataSetZOLSituationalHintSupported,
                                  ZOLSystemDataSetZOLLanguage,          ZOLSystemDataSetZOLDefaultAssistantAppid,
                                  ZOLSystemDataEnableZOLConcurrentMode, ZOLSystemDataDisableZOLConcurrentMode};
    const std::string text(100, 'x');
    for (const Declared function : functions) {
        std::string given = text;
        void* const symbol = reinterpret_cast<void*>(function);
        reinterpret_cast<bool (*)(std::string&)>(symbol)(given);
        EXPECT_EQ(text, given);
    }
    mock::reset();
}

// tests/fuzz tries more lists.
TEST(ConcurrentMode, ListsAndChangesTheAppsInEveryForm)
{
    const Trial trial{"db/multi-assistant/alexa_language"};
    const std::string app = R"({"appid":"a","concurrent":"on"})";
    const std::string deep = std::string(300000, '[') + std::string(300000, ']');
    const std::string nested = "[" + deep + R"(,{"appid":"b","concurrent":)" + deep + "}," + app + "]";
    struct Row {
        std::string before;  // if any
        std::string reason;  // why that is no list
        std::vector<std::string> apps;
        std::string head, tail;  // of the list with an entry for "b"
    };
    const Row rows[] = {
        {"", "json parsing is failed", {"kept"}, "[", "]"},
        {"[] %s%n", "json parsing is failed", {"kept"}, "[", "]"},
        {app, "json is invalid (root.isArray())", {"kept"}, "[", "]"},
        {"[" + app + "]", "", {"kept", "a"}, "[" + app + ",", "]"},
        {nested, "", {"kept", "a"}, "[" + deep + ",", "," + app + "]"},
    };
    const std::pair<std::string, std::function<bool(std::string)>> forms[] = {
        {"on", ZOLSystemData::EnableZOLConcurrentMode},
        {"on", ZOLSystemDataEnableZOLConcurrentMode},
        {"off", ZOLSystemData::DisableZOLConcurrentMode},
        {"off", ZOLSystemDataDisableZOLConcurrentMode},
        {"%s%n", [](const std::string& appid) { return SetZOLConcurrentMode(appid, "%s%n"); }},
    };
    for (const auto& [before, reason, apps, head, tail] : rows) {
        const mock::Value stored = before.empty() ? mock::Value() : before;
        const std::string read = before.empty() ? "vconf_get_str is failed" : trial.written(before);
        const Events reading = {"vconf_get_str " + trial.key, line("getString", read)};
        const Events invalid = {line("GetZOLConcurrentAppList", "data is not valid : " + before)};
        const Events replacing = {line("SetZOLConcurrentMode", reason)};
        for (const auto form : {ZOLSystemData::GetZOLConcurrentAppList, ZOLSystemDataGetZOLConcurrentAppList}) {
            mock::put(trial.key, stored);
            std::vector<std::string> found = {"kept"};
            EXPECT_EQ(reason.empty(), form(found));
            EXPECT_EQ(apps, found);
            mock::expectEvents(before.empty() || reason.empty() ? reading : reading + invalid);
        }
        for (const auto& [mode, form] : forms) {
            mock::put(trial.key, stored);
            EXPECT_TRUE(form("b"));
            const std::string after = head + R"({"appid":"b","concurrent":")" + mode + "\"}" + tail;
            mock::expectEvents((reason.empty() ? reading : reading + replacing) + trial.writing(after));
        }
    }
}

TEST(ToString, WritesCompactTextAndEscapesOnlyWhatItMust)
{
    rapidjson::Document value;
    value.Parse(R"( { "b" : [ 1, -2.5, true, null, {}, [] ] , "\u0000\u001f\b\f\n\r\t\"\\\/\u007f\u00e9" : "" } )");
    std::string out = "replaced";
    toString(value, out);
    EXPECT_EQ(R"({"b":[1,-2.5,true,null,{},[]],"\u0000\u001F\b\f\n\r\t\"\\/)"
              "\x7f\xc3\xa9\":\"\"}",
              out);
}

}  // namespace
