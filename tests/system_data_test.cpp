// The typed keys, the operations of one key each, and the app list, over the platform mock.

#include <pthread.h>
#include <rapidjson/document.h>

#include <climits>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "ZOLConcurrentMode.h"
#include "ZOLJson.h"
#include "ZOLSystemData.h"
#include "ZOLTypedKeys.h"
#include "capi-zol-tv.h"
#include "platform_mock.h"

using namespace std::string_literals;

namespace {

std::string line(const std::string& function, const std::string& message)
{
    return mock::line("ZOLSystemDataClass.cpp", function, message);
}

// ---- keys -----------------------------------------------------------------------------------------------------------

using StringGetter = bool (*)(std::string&);
using StringSetter = bool (*)(std::string);
using IntGetter = bool (*)(int&);
using IntSetter = bool (*)(int);
using BoolGetter = bool (*)();
using BoolSetter = bool (*)(bool);
using Form = std::variant<StringGetter, StringSetter, IntGetter, IntSetter, BoolGetter, BoolSetter>;

// Takes an operation through its results, and looks at all that it does, to its key and to no other.
struct Trial {
    std::string key;
    std::string big = std::string(70000, 'x');
    std::vector<std::pair<std::string, std::string>> texts = {  // given and stored
        {"%s%n", "%s%n"},
        {big, big},
        {"\xff\n", "\xff\n"},
        {"a\0b"s, "a"},
        {"\0b"s, ""}};

    void operator()(StringGetter get) const
    {
        std::string value = big;
        doesNotRead([&] { return get(value); }, "vconf_get_str", mock::text("new"), mock::integer(1),
                    line("getString", "vconf_get_str is failed"));
        EXPECT_EQ(big, value);
        for (const auto& [given, stored] : texts) {
            mock::put(key, mock::text(given));
            EXPECT_TRUE(get(value));
            EXPECT_EQ(stored, value);
            mock::did({"vconf_get_str " + key, line("getString", "key[" + key + "] Value [" + stored + "]")});
        }
    }
    void operator()(StringSetter set) const
    {
        EXPECT_FALSE(set(""));
        mock::did({line("setString", "value is empty")});
        for (const bool refused : {false, true}) {
            mock::refuse("vconf_set_str", refused ? INT_MAX : 0);
            for (const auto& [given, stored] : texts) {
                EXPECT_TRUE(set(given));
                mock::did({line("setString", "key[" + key + "] Value [" + stored + "]"),
                           "vconf_set_str " + key + "=" + stored});
            }
        }
    }
    void operator()(IntGetter get) const
    {
        int value = 7;
        doesNotRead([&] { return get(value); }, "vconf_get_int", mock::integer(1), mock::boolean(1),
                    line("getInt", "failed to get vconf key (" + key + ")"));
        EXPECT_EQ(7, value);
        for (const int stored : {INT_MIN, -1, 0, INT_MAX}) {
            mock::put(key, mock::integer(stored));
            EXPECT_TRUE(get(value));
            EXPECT_EQ(stored, value);
            mock::did({"vconf_get_int " + key, line("getInt", "Background volume is " + std::to_string(stored))});
        }
    }
    void operator()(BoolGetter get) const
    {
        doesNotRead(get, "vconf_get_bool", mock::boolean(1), mock::integer(1),
                    line("getBool", "failed to get vconf key (" + key + ")"));
        for (const int stored : {0, 1, 2, -1}) {
            mock::put(key, mock::boolean(stored));
            EXPECT_EQ(stored == 1, get());
            mock::did({"vconf_get_bool " + key, line("getBool", stored == 1 ? "true" : "false")});
        }
    }
    void operator()(IntSetter set) const { writes(set, "setInt", "vconf_set_int", {INT_MIN, -1, 0, INT_MAX}); }
    void operator()(BoolSetter set) const { writes(set, "setBool", "vconf_set_bool", {0, 1}); }

    // A key that is missing, one of another type and one that vconf refuses to read are alike.
    void doesNotRead(const std::function<bool()>& get, const std::string& call, const mock::Value& value,
                     const mock::Value& ofAnotherType, const std::string& message) const
    {
        const auto tryIt = [&] {
            EXPECT_FALSE(get());
            mock::did({call + " " + key, message});
        };
        tryIt();
        mock::put(key, ofAnotherType);
        tryIt();
        mock::put(key, value);
        mock::refuse(call, 1);
        tryIt();
    }
    template <class Set>
    void writes(Set set, const std::string& function, const std::string& call, const std::vector<int>& values) const
    {
        for (const int value : values) {
            const std::string number = std::to_string(value);
            mock::Events expected = {line(function, "key[" + key + "] Value [" + number + "]"),
                                     call + " " + key + "=" + number};
            EXPECT_TRUE(set(value));
            mock::did(expected);
            mock::refuse(call, 1);
            EXPECT_FALSE(set(value));
            expected.push_back(line(function, "failed to set vconf key (" + key + ")"));
            mock::did(expected);
        }
    }
};

constexpr char kAny[] = "any/%s%n/key";

TEST(SystemData, EveryOperationWorksOnItsKeyInBothForms)
{
    struct Operations {
        const char* key;
        std::vector<Form> forms;
    };
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): both forms are named after the one operation.
#define BOTH(name) ZOLSystemData::name, ZOLSystemData##name
    const Operations catalogue[] = {
        {kAny, {+[](std::string& value) { return getString(kAny, value); }}},
        {kAny, {+[](std::string value) { return setString(kAny, std::move(value)); }}},
        {kAny, {+[](int& value) { return getInt(kAny, value); }, +[](int value) { return setInt(kAny, value); }}},
        {kAny, {+[] { return getBool(kAny); }, +[](bool value) { return setBool(kAny, value); }}},
        {"db/multi-assistant/aov_mode_setter", {BOTH(GetAovModeSetter), BOTH(SetAovModeSetter)}},
        {"db/menu_widget/language", {BOTH(GetOSDLanguage), BOTH(SetOSDLanguage)}},
        {"db/menu/voice/assistant_farfield", {BOTH(GetAssistantFarField), BOTH(SetAssistantFarField)}},
        {"db/multi-assistant/situational_hint_supported",
         {BOTH(GetZOLSituationalHintSupported), BOTH(SetZOLSituationalHintSupported)}},
        {"db/multi-assistant/zol_language", {BOTH(GetZOLLanguage), BOTH(SetZOLLanguage)}},
        {"db/multi-assistant/default_assistant_appid",
         {BOTH(GetZOLDefaultAssistantAppid), BOTH(SetZOLDefaultAssistantAppid)}},
        {"memory/was/app_uninstall", {BOTH(GetWebAppUninstall)}},
        {"memory/was/app_install", {BOTH(GetWebAppInstall)}},
        {"memory/multiscreen/ui_mode", {BOTH(GetMultiViewMode)}},
        {"db/comss/modelid", {BOTH(GetModelId)}},
        {"db/menu/network/devicename/tv_name", {BOTH(GetTVName)}},
        {"db/comss/countrycode", {BOTH(GetOSDCountry)}},
        {"db/menu/system/accessibility/voiceguide/tv_bg_volume", {BOTH(GetBackgroundVolume)}},
        {"db/multi-assistant/activated", {BOTH(GetZOLActivated), BOTH(IsZOLActivated), BOTH(SetZOLActivated)}},
        {"db/multi-assistant/multiple_mode",
         {BOTH(GetZOLMultipleMode), BOTH(IsZOLMultipleMode), BOTH(SetZOLMultipleMode)}},
        {"db/menu/system/power_control/PowerOff_Status", {BOTH(GetPowerOffStatus)}},
        {"db/btapp/audio_multi_output_on_off", {BOTH(GetMultiOutputAudio)}},
        {"db/setting/accessibility/tts", {BOTH(GetAccessibilityVoiceGuide)}},
        {"db/menu/system/accessibility/audio_description", {BOTH(GetAccessibilityAudioDescription)}},
        {"db/menu/system/accessibility/highcontrast", {BOTH(GetAccessibilityHighContrast)}},
        {"db/menu/system/accessibility/grayscale", {BOTH(GetAccessibilityGrayScale)}},
        {"db/menu/system/accessibility/focuszoom", {BOTH(GetAccessibilityEnlarge)}},
        {"db/menu/system/accessibility/nagative_colors", {BOTH(GetAccessibilityColorInversion)}},
        {"db/art-app/art_app_status", {BOTH(GetArtAppStatus)}},
        {"db/setting/ambient_mode", {BOTH(GetAmbientMode)}},
    };
    for (const auto& [key, forms] : catalogue) {
        for (size_t i = 0; i < forms.size(); ++i) {
            SCOPED_TRACE(key + ", form "s + std::to_string(i));
            mock::reset();
            std::visit(Trial{key}, forms[i]);
        }
    }
}

// ---- the app list ---------------------------------------------------------------------------------------------------

using Texts = std::vector<std::string>;
using Stored = std::optional<std::string>;

constexpr char kKey[] = "db/multi-assistant/alexa_language";

std::string entry(const std::string& appid, const std::string& mode)
{
    return R"({"appid":")" + appid + R"(","concurrent":")" + mode + R"("})";
}
std::string on(const std::string& appid) { return entry(appid, "on"); }
std::string off(const std::string& appid) { return entry(appid, "off"); }
std::string list(const Texts& elements)
{
    std::string text;
    for (const std::string& element : elements) {
        text += (text.empty() ? "" : ",") + element;
    }
    return "[" + text + "]";
}

// An array in an object in an array and so on, the outermost an array.
std::string nested(int levels)
{
    std::string text = "0";
    for (int level = levels; level >= 1; --level) {
        text = level % 2 == 1 ? "[" + text + "]" : "{\"m\":" + text + "}";
    }
    return text;
}
const int kTooDeepForAnyStack = 300000;

void store(const Stored& text)
{
    mock::reset();
    if (text) {
        mock::put(kKey, mock::text(*text));
    }
}
std::string stored() { return mock::Locked()->store.at(kKey).text; }

mock::Events readingOf(const Stored& text)
{
    return {"vconf_get_str "s + kKey,
            line("getString", text ? "key["s + kKey + "] Value [" + *text + "]" : "vconf_get_str is failed")};
}

class ConcurrentMode : public mock::Test {};

struct Change {
    Stored before;
    std::string appid, mode, after;
    std::string message{};  // when there is no list to change
};

TEST_F(ConcurrentMode, ChangesTheList)
{
    const std::string notJson = "json parsing is failed";
    std::string wide = "{},[]";  // many at one level
    for (int i = 0; i < 100; ++i) {
        wide += ",{},[]";
    }
    const std::string notArray = "json is invalid (root.isArray())";
    const std::string nul = R"({"appid":"a\u0000b","concurrent":"x\u0000y"})";
    const std::string strange =
        R"(1,"a",["appid","a"],null,{},{"noid":"a"},{"Appid":"a"},{"appid ":"a"},{"appid\u0000":"a"})";
    const std::string noText = R"({"appid":7},{"appid":null},{"appid":["a"]},{"appid":{"appid":"a"}})";

    const Change changes[] = {
        // no list: a fresh one
        {std::nullopt, "a", "on", list({on("a")}), notJson},
        {"", "a", "on", list({on("a")}), notJson},
        {"[] x", "a", "on", list({on("a")}), notJson},
        {nested(65), "a", "on", list({on("a")}), notJson},
        {std::string(kTooDeepForAnyStack, '['), "a", "on", list({on("a")}), notJson},
        {on("b"), "a", "on", list({on("a")}), notArray},
        {"5", "a", "off", list({off("a")}), notArray},
        {"\"[]\"", "a\0b"s, "on\0b"s, list({on("a")}), notArray},
        // an entry is added
        {"[]", "a", "on", list({on("a")})},
        {list({on("a")}), "aa", "some mode", list({on("a"), entry("aa", "some mode")})},
        {"[]", "\"\\/\n\x1f\xc3\xa9\xff", "on", list({on("\\\"\\\\/\\n\\u001F\xc3\xa9\xff")})},
        // an entry is changed, the first that matches
        {list({on("a")}), "a", "off", list({off("a")})},
        {list({on("a"), off("b"), on("a")}), "a", "off", list({off("a"), off("b"), on("a")})},
        {R"([{"appid":"a","y":[null,-1.5,{}]}])", "a", "on", R"([{"appid":"a","y":[null,-1.5,{}],"concurrent":"on"}])"},
        {R"([{"concurrent":5,"appid":"a","z":0}])", "a", "on", R"([{"concurrent":"on","appid":"a","z":0}])"},
        {R"([{"appid":"\u0061","concurrent":"\/"},"\u00e9\/"])", "a", "on", list({on("a"), "\"\xc3\xa9/\""})},
        {R"([1.7976931348623159e308,-1.7976931348623159e308])", "a", "on",
         list({"1.7976931348623157e308", "-1.7976931348623157e308", on("a")})},
        // the first member of a name counts
        {R"([{"appid":"a","appid":"b","concurrent":"x","concurrent":"y"}])", "a", "on",
         R"([{"appid":"a","appid":"b","concurrent":"on","concurrent":"y"}])"},
        // what is not an entry stays as it is
        {list({strange}), "a", "on", list({strange, on("a")})},
        {list({noText}), "a", "on", list({noText, on("a")})},
        {list({wide}), "a", "on", list({wide, on("a")})},
        // an empty id never matches
        {list({on("")}), "", "off", list({on(""), off("")})},
        // stored texts count up to a NUL; an id is looked for as a whole and stored up to a NUL
        {list({nul}), "c", "on\0x"s, list({nul, on("c")})},
        {list({on("a")}), "a\0b"s, "off", list({on("a"), off("a")})},
    };

    for (const Change& change : changes) {
        std::vector<std::function<bool(std::string)>> forms = {
            [&](const std::string& appid) { return SetZOLConcurrentMode(appid, change.mode); }};
        if (change.mode == "on") {
            forms.insert(forms.end(), {ZOLSystemData::EnableZOLConcurrentMode, ZOLSystemDataEnableZOLConcurrentMode});
        } else if (change.mode == "off") {
            forms.insert(forms.end(), {ZOLSystemData::DisableZOLConcurrentMode, ZOLSystemDataDisableZOLConcurrentMode});
        }
        mock::Events expected = readingOf(change.before);
        if (!change.message.empty()) {
            expected.push_back(line("SetZOLConcurrentMode", change.message));
        }
        expected.push_back(line("setString", "key["s + kKey + "] Value [" + change.after + "]"));
        expected.push_back("vconf_set_str "s + kKey + "=" + change.after);
        for (const auto& form : forms) {
            SCOPED_TRACE(change.before.value_or("nothing").substr(0, 100) + " and " + change.appid);
            store(change.before);
            EXPECT_TRUE(form(change.appid));
            mock::did(expected);
        }
    }
}

TEST_F(ConcurrentMode, ListsTheAppsThatAreOn)
{
    const std::pair<Stored, std::optional<Texts>> readings[] = {
        // no apps: it is no list
        {std::nullopt, std::nullopt},
        {"", std::nullopt},
        {"[] x", std::nullopt},
        {R"({"%s%n":1})", std::nullopt},
        {nested(65), std::nullopt},
        {std::string(kTooDeepForAnyStack, '['), std::nullopt},
        {on("a"), std::nullopt},
        {"[]", Texts{}},
        {list({on("b"), off("a"), on(""), on("b")}), Texts{"b", "", "b"}},
        {list({entry(R"(a\u0000b)", R"(on\u0000x)"), on(R"(\u0000)"), on(R"(\u00e9)")}), Texts{"a", "", "\xc3\xa9"}},
        {R"([{"appid":"a","appid":"b","concurrent":"on","concurrent":"off"}])", Texts{"a"}},
        {R"([1,"on",["on"],null,{},{"appid":"a"},{"concurrent":"on"},{"Appid":"a","concurrent":"on"}])", Texts{}},
        {R"([{"appid":1,"concurrent":"on"},{"appid":null,"concurrent":"on"},{"appid":"a","concurrent":true}])",
         Texts{}},
    };

    for (const auto& [text, apps] : readings) {
        for (const auto form : {ZOLSystemData::GetZOLConcurrentAppList, ZOLSystemDataGetZOLConcurrentAppList}) {
            SCOPED_TRACE(text.value_or("nothing").substr(0, 100));
            store(text);
            Texts expected = apps.value_or(Texts());
            expected.insert(expected.begin(), "kept");
            Texts found = {"kept"};
            EXPECT_EQ(apps.has_value(), form(found));
            EXPECT_EQ(expected, found);
            mock::Events events = readingOf(text);
            if (text && !apps) {
                events.push_back(line("GetZOLConcurrentAppList", "data is not valid : " + *text));
            }
            mock::did(events);
        }
    }
}

TEST_F(ConcurrentMode, SixtyFourLevelsAreAListEvenOnASmallStack)
{
    const std::string deep = nested(64);
    store(deep);
    Texts apps;
    const auto changeAndList = [](void* found) -> void* {
        SetZOLConcurrentMode("a", "on");
        ZOLSystemData::GetZOLConcurrentAppList(*static_cast<Texts*>(found));
        return nullptr;
    };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256UL * 1024);
    pthread_t thread{};
    ASSERT_EQ(0, pthread_create(&thread, &attributes, changeAndList, &apps));
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(Texts{"a"}, apps);
    EXPECT_EQ(list({deep.substr(1, deep.size() - 2), on("a")}), stored());
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
