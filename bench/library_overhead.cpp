// What the library adds to the platform's calls: each operation over a platform that does nothing, beside a bare loop
// that makes the same platform calls and the same copies.

#include <dlog.h>
#include <vconf.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "VconfCallbackGenerator.h"
#include "ZOLSystemData.h"
#include "ZOLSystemDataNotify.h"
#include "ZOLTypedKeys.h"
#include "ZOLVconfKeys.h"
#include "ZOLWatch.h"
#include "applist.h"
#include "null_platform.h"
#include "repeat.h"

namespace {

constexpr char kText[] = "org.example.assistant.alpha";  // an app id, too long to be kept inside a std::string

template <class... Arguments>
void log(const char* message, Arguments... arguments)
{
    dlog_print(DLOG_ERROR, "libZOL", message, "calls.cpp", "function", 1, arguments...);
}

// ---- one key --------------------------------------------------------------------------------------------------------

constexpr auto kTextLine = "%s: %s[%d]\t DLOG_ERROR \"key[%s] Value [%s]\"\n";

auto bareRead(const char* key)
{
    return [key, value = std::string()]() mutable {
        char* text = vconf_get_str(key);
        std::string copy(text);
        std::free(text);
        value = std::move(copy);
        log(kTextLine, key, value.c_str());
    };
}

void addAccesses()
{
    constexpr auto kNumberLine = "%s: %s[%d]\t DLOG_ERROR \"key[%s] Value [%d]\"\n";
    platformText = kText;

    add("read a string/peer", bareRead(ZOLVconfKey::OSDLanguage));
    add("read a string/ours", [value = std::string()]() mutable { ZOLSystemData::GetOSDLanguage(value); });

    addOnThreads("reads/peer", kThreadKeys, bareRead);
    addOnThreads("reads/ours", kThreadKeys,
                 [](const char* key) { return [key, value = std::string()]() mutable { getString(key, value); }; });

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
thread_local std::size_t total = 0;  // the callbacks' user data

// A watcher holds a function once, so a thousand callbacks are a thousand functions.
template <std::size_t index>
// cppcheck-suppress passedByValue ; callbacks have this type
void callback(std::string value, void* userData)
{
    *static_cast<std::size_t*>(userData) += value.size() + index;
}
template <std::size_t... index>
constexpr std::array<Callback, sizeof...(index)> makeCallbacks(std::index_sequence<index...> /*indices*/)
{
    return {callback<index>...};
}
constexpr auto kCallbacks = makeCallbacks(std::make_index_sequence<kMostCallbacks>());

// A topic whose watcher the registry makes, as it does for every caller.
struct Topic {
    const char* key;
    int (*add)(Callback, void*);
    int (*remove)(Callback);
};
using Notify = ZOLSystemDataNotify;
constexpr std::array<Topic, 4> kTopics{{
    {ZOLVconfKey::ZOLLanguage, Notify::RegisterZOLLanguageCallback, Notify::UnregisterZOLLanguageCallback},
    {ZOLVconfKey::OSDCountry, Notify::RegisterOSDCountryCallback, Notify::UnregisterOSDCountryCallback},
    {ZOLVconfKey::WebAppInstall, Notify::RegisterWebAppInstallCallback, Notify::UnregisterWebAppInstallCallback},
    {ZOLVconfKey::WebAppUninstall, Notify::RegisterWebAppUninstallCallback, Notify::UnregisterWebAppUninstallCallback},
}};

keynode_t changeOf(const char* key)
{
    keynode_t node{};
    node.keyname = key;
    node.type = VCONF_TYPE_STRING;
    node.value.s = kText;
    return node;
}

auto bareDelivery(const Topic& topic, std::int64_t callbacks)
{
    std::vector<CallbackNode> list;
    for (std::size_t i = 0; i < static_cast<std::size_t>(callbacks); ++i) {
        list.push_back({reinterpret_cast<void*>(kCallbacks[i]), &total});
    }
    return [node = changeOf(topic.key), list = std::move(list)] {
        log("%s: %s[%d]\t DLOG_ERROR \"Vconf cb invoked : %s\"\n", node.keyname);
        for (const CallbackNode& each : list) {
            log("%s: %s[%d]\t DLOG_ERROR \"call cb (%p)\"\n", each.callback);
            reinterpret_cast<Callback>(each.callback)(std::string(node.value.s), each.userData);
        }
    };
}

// A watcher that belongs to nobody else.
auto delivery(const Topic& topic, std::int64_t callbacks)
{
    auto watcher = std::make_unique<VconfCallbackGenerator>(DATA_TYPE_STRING, topic.key);
    for (std::size_t i = 0; i < static_cast<std::size_t>(callbacks); ++i) {
        watcher->RegisterCallback(reinterpret_cast<void*>(kCallbacks[i]), &total);
    }
    return [node = changeOf(topic.key), watcher = std::move(watcher)]() mutable {
        VconfCallbackGenerator::VconfCallbackMethod(&node, watcher.get());
    };
}

// The topic's own watcher, which is kept alive during the delivery.
auto registeredDelivery(const Topic& topic, std::int64_t callbacks)
{
    const auto count = static_cast<std::size_t>(callbacks);
    for (std::size_t i = 0; i < count; ++i) {
        topic.add(kCallbacks[i], &total);
    }
    const auto end = [=](void*) {
        for (std::size_t i = 0; i < count; ++i) {
            topic.remove(kCallbacks[i]);
        }
    };
    return [node = changeOf(topic.key), watcher = std::shared_ptr<void>(platformSubscriber, end)]() mutable {
        VconfCallbackGenerator::VconfCallbackMethod(&node, watcher.get());
    };
}

// The same for watches, which share one callback.
auto watchDelivery(const Topic& topic, std::int64_t watches)
{
    std::vector<ZOLWatch> list;
    for (std::size_t i = 0; i < static_cast<std::size_t>(watches); ++i) {
        list.push_back(ZOLWatch::ZOLLanguage([i](const std::string& value) { total += value.size() + i; }));
    }
    return [node = changeOf(topic.key), watcher = platformSubscriber, list = std::move(list)]() mutable {
        VconfCallbackGenerator::VconfCallbackMethod(&node, watcher);
    };
}

template <class Make>
void addDelivery(const std::string& name, Make make)
{
    benchmark::RegisterBenchmark(name.c_str(),
                                 [=](benchmark::State& state) {
                                     repeat(state, name + '/' + std::to_string(state.range()),
                                            make(kTopics[0], state.range()));
                                 })
        ->RangeMultiplier(10)
        ->Range(1, kMostCallbacks);
}

void addDeliveries()
{
    addDelivery("deliver/peer", bareDelivery);
    addDelivery("deliver/ours", delivery);
    addDelivery("deliver by topic/ours", registeredDelivery);
    addDelivery("deliver to watches/peer", registeredDelivery);
    addDelivery("deliver to watches/ours", watchDelivery);
    addOnThreads("deliveries/peer", kTopics, [](const Topic& topic) { return bareDelivery(topic, 1); });
    addOnThreads("deliveries/ours", kTopics, [](const Topic& topic) { return registeredDelivery(topic, 1); });
}

// ---- the app list ---------------------------------------------------------------------------------------------------

void addAppList()
{
    for (const ListOperation& operation : listOperations) {
        const auto run = [&operation](benchmark::State& state) {
            const std::string text = appList(state.range());
            const std::string last = appid(state.range());
            platformText = text.c_str();
            for (auto _ : state) {
                operation.run(last);
            }
            platformText = kText;
        };
        benchmark::RegisterBenchmark(operation.name, run)->Arg(10)->Arg(1000)->Arg(100000);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    addAccesses();
    addDeliveries();
    addAppList();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
