#include "applist.h"

#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <vconf.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "ZOLSystemData.h"
#include "ZOLVconfKeys.h"

namespace {

template <class Use>
void withParsedList(Use use)
{
    char* text = vconf_get_str(ZOLVconfKey::ZOLConcurrentAppList);
    rapidjson::Document list;
    list.Parse(text);
    use(list);
    std::free(text);
}

void bareSwitch(const std::string& appid, const char* mode)
{
    withParsedList([&](rapidjson::Document& list) {
        for (rapidjson::Value& entry : list.GetArray()) {
            const auto id = entry.FindMember("appid");
            if (id != entry.MemberEnd() && appid == id->value.GetString()) {
                entry["concurrent"].SetString(mode, list.GetAllocator());
                break;
            }
        }
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        list.Accept(writer);
        vconf_set_str(ZOLVconfKey::ZOLConcurrentAppList, buffer.GetString());
    });
}

void bareList(const std::string& /*appid*/)
{
    std::vector<std::string> ids;
    withParsedList([&](const rapidjson::Document& list) {
        for (const rapidjson::Value& entry : list.GetArray()) {
            const auto id = entry.FindMember("appid");
            const auto mode = entry.FindMember("concurrent");
            if (id != entry.MemberEnd() && mode != entry.MemberEnd() &&
                std::strcmp(mode->value.GetString(), "on") == 0) {
                ids.emplace_back(id->value.GetString());
            }
        }
    });
    benchmark::DoNotOptimize(ids);
}

void listApps(const std::string& /*appid*/)
{
    std::vector<std::string> ids;
    ZOLSystemData::GetZOLConcurrentAppList(ids);
    benchmark::DoNotOptimize(ids);
}

}  // namespace

const std::array<ListOperation, 6> listOperations = {{
    {"enable/peer", [](const std::string& appid) { bareSwitch(appid, "on"); }},
    {"enable/ours", [](const std::string& appid) { ZOLSystemData::EnableZOLConcurrentMode(appid); }},
    {"disable/peer", [](const std::string& appid) { bareSwitch(appid, "off"); }},
    {"disable/ours", [](const std::string& appid) { ZOLSystemData::DisableZOLConcurrentMode(appid); }},
    {"list/peer", bareList},
    {"list/ours", listApps},
}};

std::string appid(std::int64_t number) { return "org.example.app" + std::to_string(number); }

std::string appList(std::int64_t apps)
{
    std::string text = "[";
    for (std::int64_t i = 1; i <= apps; ++i) {
        text += R"({"appid":")" + appid(i) + R"(","concurrent":")" + (i % 2 == 0 ? "on" : "off") + R"("},)";
    }
    text.back() = ']';
    return text;
}
