// Changes app lists that are stored in any form and compares what comes of it with a model of the list. An input is one
// line per change, the mode and the app ("on app.alpha"), then an empty line and the stored text; without it, nothing.

#undef NDEBUG  // the assertions are the test
#include <dlog.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <vconf.h>

#include <algorithm>
#include <cassert>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "ZOLConcurrentMode.h"
#include "ZOLSystemData.h"

using Text = std::optional<std::string>;
static const std::string kKey = "db/multi-assistant/alexa_language";
static Text stored;
static int writes;

static std::string toJson(const rapidjson::Value& value)
{
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    assert(value.Accept(writer));
    return {buffer.GetString(), buffer.GetSize()};
}
static std::string quoteUpToNul(const char* text) { return toJson(rapidjson::Value(rapidjson::StringRef(text))); }

// Puts the largest double in place of infinity, which JSON has no form for. False when there are more levels than that.
static bool makeFinite(rapidjson::Value& value, int levels)
{
    if (value.IsDouble() && std::isinf(value.GetDouble())) {
        value.SetDouble(std::copysign(DBL_MAX, value.GetDouble()));
    }
    if (value.IsArray()) {
        return levels > 0 &&
               std::all_of(value.Begin(), value.End(), [=](auto& element) { return makeFinite(element, levels - 1); });
    }
    return !value.IsObject() || (levels > 0 && std::all_of(value.MemberBegin(), value.MemberEnd(), [=](auto& member) {
                                     return makeFinite(member.value, levels - 1);
                                 }));
}

// The text of an element's first member of that name.
static Text textOf(const rapidjson::Value& element, const std::string& name)
{
    if (element.IsObject()) {
        for (const auto& member : element.GetObject()) {
            if (toJson(member.name) == '"' + name + '"') {
                return member.value.IsString() ? Text(member.value.GetString()) : std::nullopt;
            }
        }
    }
    return std::nullopt;
}

// The list with one app's mode changed.
static std::string changed(const rapidjson::Value& list, const std::string& app, const std::string& mode)
{
    const std::string newMode = R"(,"concurrent":)" + quoteUpToNul(mode.c_str());
    std::string elements, members;
    for (const auto& element : list.GetArray()) {
        if (!members.empty() || app.empty() || textOf(element, "appid") != app) {
            elements += "," + toJson(element);
            continue;
        }
        bool isSet = false;
        for (const auto& [name, value] : element.GetObject()) {
            const bool isMode = !isSet && toJson(name) == R"("concurrent")";
            members += isMode ? newMode : "," + toJson(name) + ":" + toJson(value);
            isSet |= isMode;
        }
        elements += ",{" + (members + (isSet ? "" : newMode)).substr(1) + "}";
    }
    elements += members.empty() ? R"(,{"appid":)" + quoteUpToNul(app.c_str()) + newMode + "}" : "";
    return "[" + elements.substr(1) + "]";
}

char* vconf_get_str(const char* key) { return key == kKey && stored ? strdup(stored->c_str()) : nullptr; }
int vconf_set_str(const char* key, const char* value)
{
    stored = key == kKey ? value : "under another key";
    return ++writes;  // as if refused, which makes no difference
}
int vconf_get_int(const char*, int*) { return -1; }
int vconf_set_int(const char*, int) { return -1; }
int vconf_get_bool(const char*, int*) { return -1; }
int vconf_set_bool(const char*, int) { return -1; }
int dlog_print(log_priority, const char*, const char*, ...) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    const std::string input(data, data + size);
    const std::size_t end = ("\n" + input).find("\n\n");
    stored = end == std::string::npos ? std::nullopt : Text(input.substr(end + 1));
    std::istringstream changes(input.substr(0, end));
    std::vector<std::string> found = {"kept"}, expected = found;
    std::string mode, app;
    writes = 0;
    for (int count = 0;; ++count) {
        // Anew each time: a number with more digits than a double holds may come out a little different.
        rapidjson::Document list;
        list.Parse<rapidjson::kParseIterativeFlag>(stored ? stored->c_str() : "");
        const bool valid = list.IsArray() && makeFinite(list, 64);
        if (!valid) {
            list.SetArray();
        }
        for (const auto& element : list.GetArray()) {
            if (textOf(element, "appid") && textOf(element, "concurrent") == "on") {
                expected.push_back(*textOf(element, "appid"));
            }
        }
        assert(valid || count == 0);
        assert(ZOLSystemData::GetZOLConcurrentAppList(found) == valid);
        assert(found == expected && writes == count);
        if (!std::getline(changes, mode, ' ') || !std::getline(changes, app)) {
            return 0;
        }
        assert(mode == "on"    ? ZOLSystemData::EnableZOLConcurrentMode(app)
               : mode == "off" ? ZOLSystemData::DisableZOLConcurrentMode(app)
                               : SetZOLConcurrentMode(app, mode));
        assert(stored == changed(list, app, mode));
    }
}
