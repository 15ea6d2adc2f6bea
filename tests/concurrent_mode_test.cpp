#include <pthread.h>
#include <rapidjson/document.h>

#include <functional>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "ZOLConcurrentMode.h"
#include "ZOLJson.h"
#include "ZOLSystemData.h"
#include "capi-zol-tv.h"
#include "platform_mock.h"

using namespace std::string_literals;

namespace {

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

void store(const Stored& text)
{
    mock::reset();
    if (text) {
        mock::put(kKey, mock::text(*text));
    }
}
std::string stored() { return mock::store().at(kKey).text; }

Texts logOfRead(const Stored& text)
{
    return {"vconf_get_str "s + kKey, text ? "getString: DLOG_ERROR \"key["s + kKey + "] Value [" + *text + "]\""
                                           : "getString: DLOG_ERROR \"vconf_get_str is failed\""};
}

// Compares everything that was done, and looks at the raw form of the lines that are not about a read or a write.
void did(const Texts& expected)
{
    EXPECT_EQ(expected, mock::takeEvents());
    for (const mock::Line& each : mock::takeLines()) {
        EXPECT_EQ("ZOLSystemDataClass.cpp", each.file);
        if (each.function == "GetZOLConcurrentAppList") {
            EXPECT_EQ("%s: %s[%d]\t DLOG_ERROR \"data is not valid : %s\"\n", each.format);
        } else if (each.function == "SetZOLConcurrentMode") {
            EXPECT_EQ("%s: %s[%d]\t " + each.message + "\n", each.format);
        }
    }
}

class ConcurrentMode : public mock::Test {};

// ---- changing the list ----------------------------------------------------------------------------------------------

struct Change {
    Stored before;
    std::string appid, mode, after;
    std::string message{};  // when there is no list to change
};

TEST_F(ConcurrentMode, ChangesTheList)
{
    const std::string notJson = "json parsing is failed";
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
        {"[]]", "a", "on", list({on("a")}), notJson},
        {"[1,]", "a", "on", list({on("a")}), notJson},
        {"[/**/]", "a", "on", list({on("a")}), notJson},
        {R"(["\ud800"])", "a", "on", list({on("a")}), notJson},
        {on("b"), "a", "on", list({on("a")}), notArray},
        {"5", "a", "off", list({off("a")}), notArray},
        {"\"[]\"", "a\0b"s, "on\0b"s, list({on("a")}), notArray},
        {"null", "a", "on", list({on("a")}), notArray},
        // an entry is added
        {"[]", "a", "on", list({on("a")})},
        {" [\n] ", "a", "", list({entry("a", "")})},
        {list({on("a")}), "A", "off", list({on("a"), off("A")})},
        {list({on("a")}), "aa", "some mode", list({on("a"), entry("aa", "some mode")})},
        {"[]", "\"\\/\n\x1f\xc3\xa9\xff", "on", list({on("\\\"\\\\/\\n\\u001F\xc3\xa9\xff")})},
        // an entry is changed, the first that matches
        {list({on("a")}), "a", "off", list({off("a")})},
        {" [ { \"appid\" : \"a\", \"concurrent\" : \"on\" } ] ", "a", "on", list({on("a")})},
        {list({on("a"), off("b"), on("a")}), "a", "off", list({off("a"), off("b"), on("a")})},
        {R"([{"appid":"a","y":[null,-1.5,{}]}])", "a", "on", R"([{"appid":"a","y":[null,-1.5,{}],"concurrent":"on"}])"},
        {R"([{"concurrent":5,"appid":"a","z":0}])", "a", "on", R"([{"concurrent":"on","appid":"a","z":0}])"},
        {R"([{"appid":"a","concurrent":{"appid":"b"}}])", "a", "on", list({on("a")})},
        {R"([{"appid":"a","Concurrent":"on"}])", "a", "off", R"([{"appid":"a","Concurrent":"on","concurrent":"off"}])"},
        {R"([{"appid":"\u0061","concurrent":"\/"},"\u00e9\/"])", "a", "on", list({on("a"), "\"\xc3\xa9/\""})},
        // the first member of a name counts
        {R"([{"appid":"b","appid":"a"}])", "a", "on", list({R"({"appid":"b","appid":"a"})", on("a")})},
        {R"([{"appid":"a","appid":"b","concurrent":"x","concurrent":"y"}])", "a", "on",
         R"([{"appid":"a","appid":"b","concurrent":"on","concurrent":"y"}])"},
        // what is not an entry stays as it is
        {list({strange}), "a", "on", list({strange, on("a")})},
        {list({noText}), "a", "on", list({noText, on("a")})},
        // an empty id never matches
        {list({on("")}), "", "off", list({on(""), off("")})},
        {list({R"({"appid":"\u0000a"})"}), "", "off", list({R"({"appid":"\u0000a"})", off("")})},
        // stored texts count up to a NUL; an id is looked for as a whole and stored up to a NUL
        {list({nul}), "a", "on", R"([{"appid":"a\u0000b","concurrent":"on"}])"},
        {list({nul}), "c", "on\0x"s, list({nul, on("c")})},
        {list({nul}), "a\0b"s, "on", list({nul, on("a")})},
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
        Texts expected = logOfRead(change.before);
        if (!change.message.empty()) {
            expected.push_back("SetZOLConcurrentMode: DLOG_ERROR \"" + change.message + "\"");
        }
        expected.push_back("setString: DLOG_ERROR \"key["s + kKey + "] Value [" + change.after + "]\"");
        expected.push_back("vconf_set_str "s + kKey + "=" + change.after);
        for (const auto& form : forms) {
            SCOPED_TRACE(change.before.value_or("nothing") + " and " + change.appid);
            store(change.before);
            EXPECT_TRUE(form(change.appid));
            did(expected);
        }
    }
}

TEST_F(ConcurrentMode, RefusalsOfTheStoreAreNotNoticed)
{
    store(list({on("a")}));
    mock::refuseNth("vconf_get_str", 1);
    mock::refuseNth("vconf_set_str", 2);
    EXPECT_TRUE(SetZOLConcurrentMode("b", "on"));
    EXPECT_TRUE(SetZOLConcurrentMode("c", "on"));
    EXPECT_EQ(list({on("b")}), stored());
}

// ---- reading the list -----------------------------------------------------------------------------------------------

struct Reading {
    Stored stored;
    std::optional<Texts> apps;  // none when there is no list
};

TEST_F(ConcurrentMode, ListsTheAppsThatAreOn)
{
    const Reading readings[] = {
        {std::nullopt, std::nullopt},
        {"", std::nullopt},
        {"[] x", std::nullopt},
        {R"({"%s%n":1})", std::nullopt},
        {on("a"), std::nullopt},
        {"[]", Texts{}},
        {list({on("b"), off("a"), on(""), on("b")}), Texts{"b", "", "b"}},
        {list({entry("a", "ON"), entry("b", " on"), entry("c", "on "), entry("d", ""), entry("e", "o")}), Texts{}},
        {list({off("a"), on("a")}), Texts{"a"}},
        {list({entry(R"(a\u0000b)", R"(on\u0000x)"), on(R"(\u0000)"), on(R"(\u00e9)")}), Texts{"a", "", "\xc3\xa9"}},
        {R"([{"appid":"a","appid":"b","concurrent":"on","concurrent":"off"}])", Texts{"a"}},
        {R"([{"appid":"a","concurrent":"off","concurrent":"on"}])", Texts{}},
        {R"([1,"on",["on"],null,{},{"appid":"a"},{"concurrent":"on"},{"Appid":"a","concurrent":"on"}])", Texts{}},
        {R"([{"appid":1,"concurrent":"on"},{"appid":null,"concurrent":"on"},{"appid":"a","concurrent":true}])",
         Texts{}},
    };

    for (const Reading& reading : readings) {
        for (const auto form : {ZOLSystemData::GetZOLConcurrentAppList, ZOLSystemDataGetZOLConcurrentAppList}) {
            SCOPED_TRACE(reading.stored.value_or("nothing"));
            store(reading.stored);
            Texts apps = {"kept"};
            EXPECT_EQ(reading.apps.has_value(), form(apps));
            Texts expected = reading.apps.value_or(Texts());
            expected.insert(expected.begin(), "kept");
            EXPECT_EQ(expected, apps);
            Texts log = logOfRead(reading.stored);
            if (reading.stored && !reading.apps) {
                log.push_back("GetZOLConcurrentAppList: DLOG_ERROR \"data is not valid : " + *reading.stored + "\"");
            }
            did(log);
        }
    }
}

// ---- nesting --------------------------------------------------------------------------------------------------------

// An array in an object in an array and so on, the outermost an array.
std::string nested(int levels)
{
    std::string front, back;
    for (int level = 1; level <= levels; ++level) {
        front += level % 2 == 1 ? "[" : "{\"m\":";
        back.insert(0, level % 2 == 1 ? "]" : "}");
    }
    return front + "0" + back;
}

void* changeAndList(void* apps)
{
    SetZOLConcurrentMode("a", "on");
    ZOLSystemData::GetZOLConcurrentAppList(*static_cast<Texts*>(apps));
    return nullptr;
}

TEST_F(ConcurrentMode, SixtyFourLevelsAreAListEvenOnASmallStack)
{
    const std::string deep = nested(64);
    store(deep);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256UL * 1024);
    pthread_t thread{};
    Texts apps;
    ASSERT_EQ(0, pthread_create(&thread, &attributes, changeAndList, &apps));
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(Texts{"a"}, apps);
    EXPECT_EQ(list({deep.substr(1, deep.size() - 2), on("a")}), stored());
}

TEST_F(ConcurrentMode, DeeperTextsAreNoList)
{
    const std::string open(300000, '[');
    for (const std::string& deep : {nested(65), open, open + std::string(300000, ']')}) {
        Texts apps;
        store(deep);
        EXPECT_FALSE(ZOLSystemData::GetZOLConcurrentAppList(apps));
        EXPECT_TRUE(SetZOLConcurrentMode("a", "on"));
        EXPECT_EQ(list({on("a")}), stored());
    }
}

// ---- against a model ------------------------------------------------------------------------------------------------

TEST_F(ConcurrentMode, RandomChangesFollowTheModel)
{
    constexpr unsigned seed = 20261122;
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same in every run
    const auto pick = [&random](const Texts& from) { return from[random() % from.size()]; };
    std::vector<std::pair<std::string, std::string>> model;
    for (int step = 0; step < 3000 && !HasFailure(); ++step) {
        if (random() % 50 == 0) {  // somebody else empties the list or spoils it
            model.clear();
            store(pick({"[]", "", "{}", "[,]"}));
        }
        const std::string appid = pick({"a", "b", "app.gamma", "A", ""}), mode = pick({"on", "off", "On", ""});
        SetZOLConcurrentMode(appid, mode);
        auto changed = model.begin();
        while (changed != model.end() && (appid.empty() || changed->first != appid)) {
            ++changed;
        }
        if (changed == model.end()) {
            model.emplace_back(appid, mode);
        } else {
            changed->second = mode;
        }

        Texts apps, expected, entries;
        for (const auto& [id, value] : model) {
            entries.push_back(entry(id, value));
            if (value == "on") {
                expected.push_back(id);
            }
        }
        EXPECT_EQ(list(entries), stored());
        EXPECT_TRUE(ZOLSystemData::GetZOLConcurrentAppList(apps));
        EXPECT_EQ(expected, apps);
    }
}

// ---- toString -------------------------------------------------------------------------------------------------------

TEST(ToString, WritesCompactTextAndEscapesOnlyWhatItMust)
{
    rapidjson::Document value;
    value.Parse(R"( { "b" : [ 1, -2.5, true, null, {}, [] ] , "a" : "" } )");
    std::string out = "replaced";
    toString(value, out);
    EXPECT_EQ(R"({"b":[1,-2.5,true,null,{},[]],"a":""})", out);

    std::string all;
    std::string expected =
        R"("\u0000\u0001\u0002\u0003\u0004\u0005\u0006\u0007\b\t\n\u000B\f\r\u000E\u000F)"
        R"(\u0010\u0011\u0012\u0013\u0014\u0015\u0016\u0017\u0018\u0019\u001A\u001B\u001C\u001D\u001E\u001F)";
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
        if (byte >= 32) {
            expected += (byte == '"' || byte == '\\' ? "\\" : "") + std::string(1, all.back());
        }
    }
    value.SetString(all.data(), 256, value.GetAllocator());
    toString(value, out);
    EXPECT_EQ(expected + "\"", out);
}

}  // namespace
