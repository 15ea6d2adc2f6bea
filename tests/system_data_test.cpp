// The typed keys, the operations of one key each, and the app list, over the platform mock.

#include <rapidjson/document.h>

#include <climits>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ZOLJson.h"
#include "capi-zol-tv.h"
#include "platform_mock.h"

using namespace std::string_literals;

namespace {

std::string line(const std::string& function, const std::string& message)
{
    return mock::line("ZOLSystemDataClass.cpp", function, message);
}

using StringGetter = bool (*)(std::string&);
using StringSetter = bool (*)(std::string);
using IntGetter = bool (*)(int&);
using IntSetter = bool (*)(int);
using BoolGetter = bool (*)();
using BoolSetter = bool (*)(bool);

// Takes an operation through its results, and looks at all that it does, to its key and to no other.
struct Trial {
    std::string key;
    std::string big = std::string(70000, 'x');
    std::vector<std::string> texts = {"%s%n", big, "\xff\n", "a\0b"s, "\0b"s};  // are stored up to a NUL

    void operator()(StringGetter get) const
    {
        std::string value = big;
        refuses([&] { return get(value); }, "vconf_get_str", mock::text("new"),
                line("getString", "vconf_get_str is failed"));
        EXPECT_EQ(big, value);
        for (const std::string& given : texts) {
            const std::string stored(given, 0, given.find('\0'));
            EXPECT_TRUE(reads([&] { return get(value); }, "vconf_get_str", mock::text(given),
                              line("getString", "key[" + key + "] Value [" + stored + "]")));
            EXPECT_EQ(stored, value);
        }
    }
    void operator()(IntGetter get) const
    {
        int value = 7;
        refuses([&] { return get(value); }, "vconf_get_int", mock::integer(1),
                line("getInt", "failed to get vconf key (" + key + ")"));
        EXPECT_EQ(7, value);
        for (const int stored : {INT_MIN, 0, INT_MAX}) {
            EXPECT_TRUE(reads([&] { return get(value); }, "vconf_get_int", mock::integer(stored),
                              line("getInt", "Background volume is " + std::to_string(stored))));
            EXPECT_EQ(stored, value);
        }
        mock::Locked()->writesNumbers = false;
        EXPECT_TRUE(reads([&] { return get(value); }, "vconf_get_int", mock::integer(1),
                          line("getInt", "Background volume is 0")));
        EXPECT_EQ(0, value);
    }
    void operator()(BoolGetter get) const
    {
        refuses(get, "vconf_get_bool", mock::boolean(1), line("getBool", "failed to get vconf key (" + key + ")"));
        for (const int stored : {0, 1, 2, -1}) {
            const std::string seen = line("getBool", stored == 1 ? "true" : "false");
            EXPECT_EQ(stored == 1, reads(get, "vconf_get_bool", mock::boolean(stored), seen));
        }
        mock::Locked()->writesNumbers = false;
        EXPECT_FALSE(reads(get, "vconf_get_bool", mock::boolean(1), line("getBool", "false")));
    }
    void operator()(StringSetter set) const
    {
        EXPECT_FALSE(set(""));
        mock::expectEvents({line("setString", "value is empty")});
        mock::refuse("vconf_set_str");  // makes no difference
        for (const std::string& given : texts) {
            const std::string stored(given, 0, given.find('\0'));
            EXPECT_TRUE(set(given));
            mock::expectEvents(
                {line("setString", "key[" + key + "] Value [" + stored + "]"), "vconf_set_str " + key + "=" + stored});
        }
    }
    void operator()(IntSetter set) const { writes(set, "setInt", "vconf_set_int", {INT_MIN, 0, INT_MAX}); }
    void operator()(BoolSetter set) const { writes(set, "setBool", "vconf_set_bool", {0, 1}); }

    bool reads(const std::function<bool()>& get, const std::string& call, const mock::Value& stored,
               const std::string& message) const
    {
        mock::put(key, stored);
        const bool result = get();
        mock::expectEvents({call + " " + key, message});
        return result;
    }
    void refuses(const std::function<bool()>& get, const std::string& call, const mock::Value& stored,
                 const std::string& message) const
    {
        for (const int refusal : {-1, 1}) {
            mock::Locked()->refusal = refusal;
            mock::refuse(call);
            EXPECT_FALSE(reads(get, call, stored, message));
        }
    }
    template <class Set>
    void writes(Set set, const std::string& function, const std::string& call, const std::vector<int>& values) const
    {
        for (const int value : values) {
            const std::string number = std::to_string(value);
            mock::Events expected = {line(function, "key[" + key + "] Value [" + number + "]"),
                                     call + " " + key + "=" + number};
            EXPECT_TRUE(set(value));
            mock::expectEvents(expected);
            expected.push_back(line(function, "failed to set vconf key (" + key + ")"));
            for (const int refusal : {-1, 1}) {
                mock::Locked()->refusal = refusal;
                mock::refuse(call);
                EXPECT_FALSE(set(value));
                mock::expectEvents(expected);
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
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): both forms are named after the one operation.
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

TEST(ConcurrentMode, ListsAndChangesTheAppsInEveryForm)
{
    using Texts = std::vector<std::string>;
    const std::string key = "db/multi-assistant/alexa_language";
    const std::string app = R"({"appid":"a","concurrent":"on"})";
    const std::string fresh = "[" + app + "]", another = R"({"appid":"b","concurrent":"off"})";
    std::string deep, end;  // 300,000 levels
    for (int i = 0; i < 150000; ++i) {
        deep += R"([{"m":)";
        end += "}]";
    }
    deep += "0" + end;
    struct Row {
        std::optional<std::string> before;
        std::optional<Texts> apps;  // none when that is no list
        std::string message;        // of the change
        std::string appid, mode, after;
    };
    const Row rows[] = {
        {std::nullopt, std::nullopt, "json parsing is failed", "a", "on", fresh},
        {"[] %s%n", std::nullopt, "json parsing is failed", "a\0b"s, "on", fresh},
        {app, std::nullopt, "json is invalid (root.isArray())", "a", "on", fresh},
        {fresh, Texts{"a"}, "", "b", "off", "[" + app + "," + another + "]"},
        {R"({"x":[)" + app + "]}", std::nullopt, "json is invalid (root.isArray())", "a", "on", fresh},
        {"[" + app + ",]", std::nullopt, "json parsing is failed", "b", "on", R"([{"appid":"b","concurrent":"on"}])"},
        {"[]", Texts{}, "", "a", "on", fresh},
        {"[" + deep + R"(,{"concurrent":)" + deep + R"(,"appid":"b"},)" + app + "]", Texts{"a"}, "", "b", "off",
         "[" + deep + R"(,{"concurrent":"off","appid":"b"},)" + app + "]"},
        // Only the first member of a name counts, and a text only up to its NUL.
        {R"([{"appid":"b","appid":"a","concurrent":"on"},{"appid":["a"],"concurrent":"on","x":{"appid":"a"}},)"
         R"({"appid":"a\u0000b","concurrent\u0000":1,"concurrent":"on\u0000","concurrent":"off","x":1},)"
         R"(["a","on"],{"concurrent":"on"}])",
         Texts{"b", "a"}, "", "a", "off",
         R"([{"appid":"b","appid":"a","concurrent":"on"},{"appid":["a"],"concurrent":"on","x":{"appid":"a"}},)"
         R"({"appid":"a\u0000b","concurrent\u0000":1,"concurrent":"off","concurrent":"off","x":1},)"
         R"(["a","on"],{"concurrent":"on"}])"},
        {R"([ { "appid" : "a" , "x" : 1e2 } , { "appid" : "" , "concurrent" : "on" } , -1.7976931348623159e308 ])",
         Texts{""}, "", "a", "off",
         R"([{"appid":"a","x":100.0,"concurrent":"off"},{"appid":"","concurrent":"on"},-1.7976931348623157e308])"},
        {R"([{"appid":"","concurrent":7}])", Texts{}, "", "", "on",
         R"([{"appid":"","concurrent":7},{"appid":"","concurrent":"on"}])"},
        {"[" + app + "," + another + "," + app + "]", Texts{"a", "a"}, "", "b", "%s%n",
         "[" + app + R"(,{"appid":"b","concurrent":"%s%n"},)" + app + "]"},
    };
    for (const auto& [before, apps, message, appid, mode, after] : rows) {
        mock::Events reading = {"vconf_get_str " + key, line("getString", "vconf_get_str is failed")};
        mock::Events listing = reading;
        if (before) {
            reading[1] = line("getString", "key[" + key + "] Value [" + *before + "]");
            listing = reading;
        }
        if (before && !apps) {
            listing.push_back(line("GetZOLConcurrentAppList", "data is not valid : " + *before));
        }
        if (!message.empty()) {
            reading.push_back(line("SetZOLConcurrentMode", message));
        }
        reading.push_back(line("setString", "key[" + key + "] Value [" + after + "]"));
        reading.push_back("vconf_set_str " + key + "=" + after);

        const auto store = [&key, &text = before] {
            mock::reset();
            if (text) {
                mock::put(key, mock::text(*text));
            }
        };
        for (const auto form : {ZOLSystemData::GetZOLConcurrentAppList, ZOLSystemDataGetZOLConcurrentAppList}) {
            store();
            Texts expected = apps.value_or(Texts()), found = {"kept"};
            expected.insert(expected.begin(), "kept");
            EXPECT_EQ(apps.has_value(), form(found));
            EXPECT_EQ(expected, found);
            mock::expectEvents(listing);
        }
        std::vector<std::function<bool(std::string)>> forms = {
            [&mode = mode](const std::string& id) { return SetZOLConcurrentMode(id, mode); }};
        if (mode == "on") {
            forms.insert(forms.end(), {ZOLSystemData::EnableZOLConcurrentMode, ZOLSystemDataEnableZOLConcurrentMode});
        } else if (mode == "off") {
            forms.insert(forms.end(), {ZOLSystemData::DisableZOLConcurrentMode, ZOLSystemDataDisableZOLConcurrentMode});
        }
        for (const auto& form : forms) {
            store();
            EXPECT_TRUE(form(appid));
            mock::expectEvents(reading);
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
