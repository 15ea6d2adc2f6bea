// What the library adds to the platform's calls: each operation over a platform that does nothing, beside a bare loop
// that makes the same platform calls and the same copies.

#include <dlog.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <vconf.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "VconfCallbackGenerator.h"
#include "ZOLSystemData.h"
#include "ZOLVconfKeys.h"
#include "add.h"
#include "nothing.h"

namespace {

constexpr char kText[] = "org.example.assistant.alpha";  // an app id, too long to be kept inside a std::string

template <class... Arguments>
void log(const char* message, Arguments... arguments)
{
    dlog_print(DLOG_ERROR, "libZOL", message, "calls.cpp", "function", 1, arguments...);
}

// ---- one key --------------------------------------------------------------------------------------------------------

void addAccesses()
{
    constexpr auto kTextLine = "%s: %s[%d]\t DLOG_ERROR \"key[%s] Value [%s]\"\n";
    constexpr auto kNumberLine = "%s: %s[%d]\t DLOG_ERROR \"key[%s] Value [%d]\"\n";
    platformText = kText;

    add("read a string/peer", [value = std::string()]() mutable {
        char* text = vconf_get_str(ZOLVconfKey::OSDLanguage);
        std::string copy(text);
        std::free(text);
        value = std::move(copy);
        log(kTextLine, ZOLVconfKey::OSDLanguage, value.c_str());
    });
    add("read a string/ours", [value = std::string()]() mutable { ZOLSystemData::GetOSDLanguage(value); });

    add("read an integer/peer", [] {
        int value = 0;
        benchmark::DoNotOptimize(vconf_get_int(ZOLVconfKey::BackgroundVolume, &value));
        log("%s: %s[%d]\t DLOG_ERROR \"Background volume is %d\"\n", value);
    });
    add("read an integer/ours",
        [value = 0]() mutable { benchmark::DoNotOptimize(ZOLSystemData::GetBackgroundVolume(value)); });

    add("read a boolean/peer", [] {
        int value = 0;
        benchmark::DoNotOptimize(vconf_get_bool(ZOLVconfKey::ZOLActivated, &value));
        log("%s: %s[%d]\t DLOG_ERROR \"%s\"\n", value == 1 ? "true" : "false");
    });
    add("read a boolean/ours", [] { benchmark::DoNotOptimize(ZOLSystemData::GetZOLActivated()); });

    add("write a string/peer", [value = std::string(kText)] {
        const std::string copy = value;
        log(kTextLine, ZOLVconfKey::OSDLanguage, copy.c_str());
        vconf_set_str(ZOLVconfKey::OSDLanguage, copy.c_str());
    });
    add("write a string/ours", [value = std::string(kText)] { ZOLSystemData::SetOSDLanguage(value); });

    add("write a boolean/peer", [] {
        log(kNumberLine, ZOLVconfKey::ZOLActivated, 1);
        benchmark::DoNotOptimize(vconf_set_bool(ZOLVconfKey::ZOLActivated, 1));
    });
    add("write a boolean/ours", [] { benchmark::DoNotOptimize(ZOLSystemData::SetZOLActivated(true)); });
}

// ---- delivery -------------------------------------------------------------------------------------------------------

using Callback = void (*)(std::string, void*);
constexpr std::size_t kMostCallbacks = 1000;

// A watcher holds a function once, so a thousand callbacks are a thousand functions.
template <std::size_t index>
// cppcheck-suppress passedByValue ; callbacks have this type
void callback(std::string value, void* total)
{
    *static_cast<std::size_t*>(total) += value.size() + index;
}
template <std::size_t... index>
constexpr std::array<Callback, sizeof...(index)> makeCallbacks(std::index_sequence<index...> /*indices*/)
{
    return {callback<index>...};
}
constexpr auto kCallbacks = makeCallbacks(std::make_index_sequence<kMostCallbacks>());

keynode_t changedKey()
{
    keynode_t node{};
    node.keyname = ZOLVconfKey::ZOLLanguage;
    node.type = VCONF_TYPE_STRING;
    node.value.s = kText;
    return node;
}

void bareDeliver(benchmark::State& state)
{
    keynode_t node = changedKey();
    std::size_t total = 0;
    std::vector<CallbackNode> list;
    for (std::size_t i = 0; i < static_cast<std::size_t>(state.range()); ++i) {
        list.push_back({reinterpret_cast<void*>(kCallbacks[i]), &total});
    }
    for (auto _ : state) {
        log("%s: %s[%d]\t DLOG_ERROR \"Vconf cb invoked : %s\"\n", node.keyname);
        for (const CallbackNode& each : list) {
            log("%s: %s[%d]\t DLOG_ERROR \"call cb (%p)\"\n", each.callback);
            reinterpret_cast<Callback>(each.callback)(std::string(node.value.s), each.userData);
        }
    }
    benchmark::DoNotOptimize(total);
}

void deliver(benchmark::State& state)
{
    keynode_t node = changedKey();
    std::size_t total = 0;
    VconfCallbackGenerator watcher(DATA_TYPE_STRING, node.keyname);
    for (std::size_t i = 0; i < static_cast<std::size_t>(state.range()); ++i) {
        watcher.RegisterCallback(reinterpret_cast<void*>(kCallbacks[i]), &total);
    }
    for (auto _ : state) {
        VconfCallbackGenerator::VconfCallbackMethod(&node, &watcher);
    }
    benchmark::DoNotOptimize(total);
}

BENCHMARK(bareDeliver)->Name("deliver/peer")->RangeMultiplier(10)->Range(1, kMostCallbacks);
BENCHMARK(deliver)->Name("deliver/ours")->RangeMultiplier(10)->Range(1, kMostCallbacks);

// ---- the app list ---------------------------------------------------------------------------------------------------

// In the list every other app is on. The last app is the one that is switched, so the whole list is searched.
template <class Operation>
void addOverList(const char* name, Operation operation)
{
    const auto run = [operation](benchmark::State& state) {
        const auto app = [](std::int64_t number) { return "org.example.app" + std::to_string(number); };
        std::string text = "[";
        for (std::int64_t i = 1; i <= state.range(); ++i) {
            text += R"({"appid":")" + app(i) + R"(","concurrent":")" + (i % 2 == 0 ? "on" : "off") + R"("},)";
        }
        text.back() = ']';
        platformText = text.c_str();
        const std::string last = app(state.range());
        for (auto _ : state) {
            operation(last);
        }
        platformText = kText;
    };
    benchmark::RegisterBenchmark(name, run)->Arg(10)->Arg(1000)->Arg(100000);
}

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

void addAppList()
{
    addOverList("enable/peer", [](const std::string& appid) { bareSwitch(appid, "on"); });
    addOverList("enable/ours", ZOLSystemData::EnableZOLConcurrentMode);
    addOverList("disable/peer", [](const std::string& appid) { bareSwitch(appid, "off"); });
    addOverList("disable/ours", ZOLSystemData::DisableZOLConcurrentMode);
    addOverList("list/peer", [](const std::string& /*appid*/) {
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
    });
    addOverList("list/ours", [](const std::string& /*appid*/) {
        std::vector<std::string> ids;
        ZOLSystemData::GetZOLConcurrentAppList(ids);
        benchmark::DoNotOptimize(ids);
    });
}

}  // namespace

int main(int argc, char** argv)
{
    addAccesses();
    addAppList();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
