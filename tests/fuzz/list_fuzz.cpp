// Changes app lists that are stored in any form and checks what must hold of every change and of every listing. An
// input is one line per change, the mode and the app ("on app.alpha"), then an empty line and the stored text; without
// it, nothing.

#undef NDEBUG  // the assertions are the test
#include <dlog.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <vconf.h>

#include <algorithm>
#include <cassert>
#include <cfloat>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "ZOLSystemData.h"

using Text = std::optional<std::string>;
static const std::string kKey = "db/multi-assistant/alexa_language";
static Text stored;
static int writes;

static std::string toJson(const rapidjson::Value& value)
{
    using Base = rapidjson::Writer<rapidjson::StringBuffer>;
    struct Writer : Base {
        using Base::Base;
        bool Double(double number) { return Base::Double(std::clamp(number, -DBL_MAX, DBL_MAX)); }
    };
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    assert(value.Accept(writer));
    return {buffer.GetString(), buffer.GetSize()};
}

static Text textOf(const rapidjson::Value& element, const char* name)
{
    const bool exists = element.IsObject() && element.HasMember(name) && element[name].IsString();
    return exists ? Text(element[name].GetString()) : std::nullopt;
}

// The app's first entry, or a new one at the end, has the mode now. All else is as it was.
static void checkChange(rapidjson::Document& before, const std::string& app, const char* mode)
{
    rapidjson::Document after;  // with all digits, so that its numbers are those that were written
    after.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseFullPrecisionFlag>(stored->c_str());
    assert(after.IsArray() && toJson(after) == stored);

    rapidjson::SizeType i = 0;
    for (; i < before.Size() && (app.empty() || textOf(before[i], "appid") != app); ++i) {
    }
    if (i == before.Size()) {
        rapidjson::Value entry(rapidjson::kObjectType);
        entry.AddMember("appid", rapidjson::StringRef(app.c_str()), before.GetAllocator());
        before.PushBack(entry, before.GetAllocator());
    }
    assert(after.Size() == before.Size() && textOf(after[i], "concurrent") == mode);
    const auto placeOfMode = [](auto& entry) { return entry.FindMember("concurrent") - entry.MemberBegin(); };
    assert(placeOfMode(after[i]) == placeOfMode(before[i]));  // the end where there was none
    before[i].RemoveMember("concurrent");
    after[i].RemoveMember("concurrent");
    assert(toJson(after) == toJson(before));
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
    std::string mode, app;
    writes = 0;
    for (int count = 0;; ++count) {
        rapidjson::Document list;
        list.Parse<rapidjson::kParseIterativeFlag>(stored ? stored->c_str() : "");
        const bool valid = list.IsArray();
        if (!valid) {
            list.SetArray();
        }
        std::vector<std::string> found = {"kept"}, expected = found;
        for (const auto& element : list.GetArray()) {
            if (textOf(element, "appid") && textOf(element, "concurrent") == "on") {
                expected.push_back(*textOf(element, "appid"));
            }
        }
        assert(ZOLSystemData::GetZOLConcurrentAppList(found) == valid);
        assert(found == expected && writes == count);
        if (!std::getline(changes, mode, ' ') || !std::getline(changes, app)) {
            return 0;
        }
        assert(mode == "on"    ? ZOLSystemData::EnableZOLConcurrentMode(app)
               : mode == "off" ? ZOLSystemData::DisableZOLConcurrentMode(app)
                               : SetZOLConcurrentMode(app, mode));
        checkChange(list, app, mode.c_str());
    }
}

#ifdef REPLAY  // runs the kept inputs, which are its arguments, without a fuzzer
int main(int count, char** paths)
{
    for (int i = 1; i < count; ++i) {
        std::ifstream file(paths[i], std::ios::binary);
        const std::string input((std::istreambuf_iterator<char>(file)), {});
        std::fprintf(stderr, "%s\n", paths[i]);
        LLVMFuzzerTestOneInput(reinterpret_cast<const unsigned char*>(input.data()), input.size());
    }
    return count > 1 ? 0 : 1;
}
#endif
