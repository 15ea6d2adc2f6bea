// Memory that runs out at any point, and a platform that refuses any of its calls.
//
// This makes two programs: over the platform mock, whose own memory is spared, the library starves alone; with ON_DESK
// it is the desk's store and log that starve as well.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ZOLTypedKeys.h"
#include "capi-zol-tv.h"
#include "child.h"
#ifdef ON_DESK
#include <vconf.h>
namespace mock {
static thread_local int inside = 0;
static void reset() {}
}  // namespace mock
constexpr bool kOnDesk = true;
#else
#include "platform_mock.h"
constexpr bool kOnDesk = false;
#endif

extern std::atomic<int> failingAllocation;

static thread_local bool runsOperations = false;
static bool othersStarve = false;
bool isCounted();
__attribute__((no_sanitize("thread"))) bool isCounted()  // a thread allocates before it is known there
{
    // cppcheck-suppress knownConditionTrueFalse ; the mock changes it
    return runsOperations != othersStarve && mock::inside == 0;
}

using namespace std::string_literals;

namespace {

// ---- operations and what there is to see of them --------------------------------------------------------------------

constexpr char kText[] = "longer than a string holds in itself";
constexpr char kOther[] = "another that is longer than a string holds in itself";
constexpr char kApp[] = "an app whose name is longer than that";
const std::string kFresh = R"([{"appid":")"s + kApp + R"(","concurrent":"on"}])";

const std::string kLanguage = "db/multi-assistant/zol_language";
const std::string kActivated = "db/multi-assistant/activated";
const std::string kVolume = "db/menu/system/accessibility/voiceguide/tv_bg_volume";
const std::string kVolatile = "memory/any";
const std::string kList = "db/multi-assistant/alexa_language";
const std::string kCountry = "db/comss/countrycode";  // is watched

std::string longList(const std::string& lastAppid)
{
    std::string list = "[";
    for (int i = 0; i < 40; ++i) {
        list += R"({"appid":"com.example.another.app)" + std::to_string(i) + R"(","concurrent":"on"},)";
    }
    return list + R"({"appid":")" + lastAppid + R"(","concurrent":"off"}])";
}

// Where the operations put what they read.
std::string text;
int number;
std::vector<std::string> apps;

std::atomic<int> told[2];
template <int which>
void on(std::string value, void* /*data*/)
{
    told[which] += value == kText ? 1 : 0;
}
bool add(ZOLStringCallback callback) { return ZOLSystemDataNotifyRegisterOSDCountryCallback(callback, nullptr) == 1; }
bool remove(ZOLStringCallback callback) { return ZOLSystemDataNotifyUnregisterOSDCountryCallback(callback) == 1; }

#ifdef ON_DESK
// Waits until all earlier writes have been delivered.
void settle()
{
    static std::atomic<int> seen;
    static pid_t subscriber = 0;
    if (subscriber != getpid()) {
        subscriber = getpid();
        const auto see = [](keynode_t* node, void*) { seen = node->value.i; };
        REQUIRE(vconf_notify_key_changed("db/last", see, nullptr) == 0);
    }
    int last = 0;
    vconf_get_int("db/last", &last);
    REQUIRE(vconf_set_int("db/last", last + 1) == 0);
    while (seen <= last) {
        std::this_thread::yield();
    }
}
void change()
{
    settle();
    told[0] = told[1] = 0;
    REQUIRE(vconf_set_str(kCountry.c_str(), kText) == 0);
    settle();
}
#else
const mock::Value kChange = mock::text(kText);
void change()
{
    told[0] = told[1] = 0;
    mock::fire(kCountry, kChange);
}
#endif
// Changes the watched key. One of the callbacks may go without for lack of memory.
bool deliver()
{
    change();
    REQUIRE(told[0] <= 1 && told[1] <= 1 && told[0] + told[1] >= 1);
    return told[0] + told[1] == 2;
}
bool enable() { return ZOLSystemDataEnableZOLConcurrentMode(kApp); }

struct Operation {
    const char* name;
    bool (*run)();
    std::vector<std::string> ways;  // in which it fails for lack of memory
    bool cold = false;              // is starved also as the process's first use of the store and of the library
    int callbacks = 0;              // that are registered before
    std::string list = longList(kApp);
};
const char* const kThrows = "bad_alloc";
const char* const kNoNode = "Fail to malloc, poitner is NULL";
const char* const kNoRoom = "Fail to grow nodeList";

// The flat forms go through those of the classes.
const Operation operations[] = {
    {"getString", [] { return ZOLSystemDataGetZOLLanguage(text); }, {kThrows}, true},
    {"setString", [] { return ZOLSystemDataSetZOLLanguage(kOther); }, {kThrows}},
    {"getInt", [] { return ZOLSystemDataGetBackgroundVolume(number); }, {}},
    {"setInt", [] { return setInt(kVolatile.c_str(), 4); }, {}, true},
    {"getBool", ZOLSystemDataGetZOLActivated, {}},
    {"setBool", [] { return ZOLSystemDataSetZOLActivated(false); }, {}},
    {"a new list", enable, {kThrows}, false, 0, "no list"},
    {"an entry changed", enable, {kThrows}},
    {"an entry added", enable, {kThrows}, false, 0, longList("another")},
    {"the list read", [] { return ZOLSystemDataGetZOLConcurrentAppList(apps); }, {kThrows}},
    {"the first callback added", [] { return add(on<0>); }, {kThrows, kNoNode, kNoRoom}, true},
    {"another callback added", [] { return add(on<1>); }, {kNoNode, kNoRoom}, false, 1},
    {"a callback removed", [] { return remove(on<0>); }, {}, false, 2},
    {"the last callback removed", [] { return remove(on<0>); }, {}, false, 1},
    {"a delivery", deliver, {"exception in cb"}, false, 2},
};

void fill(const Operation& operation)
{
    vconf_set_str(kLanguage.c_str(), kText);
    vconf_set_bool(kActivated.c_str(), 1);
    vconf_set_int(kVolume.c_str(), 3);
    vconf_set_str(kList.c_str(), operation.list.c_str());
}

void prepare(const Operation& operation)
{
    text = kOther;
    number = -1;
    apps = {"kept"};
    REQUIRE(operation.callbacks < 1 || add(on<0>));
    REQUIRE(operation.callbacks < 2 || add(on<1>));
}

std::string state()
{
    std::string all = text + "," + std::to_string(number);
    for (const std::string& app : apps) {
        all += "," + app;
    }
    for (const std::string& key : {kLanguage, kList}) {
        char* stored = vconf_get_str(key.c_str());
        all += ","s + stored;
        std::free(stored);
    }
    int stored[] = {0, 0, 0};
    vconf_get_bool(kActivated.c_str(), &stored[0]);
    vconf_get_int(kVolume.c_str(), &stored[1]);
    stored[2] = vconf_get_int(kVolatile.c_str(), &stored[2]) == 0 ? stored[2] : 0;
    change();
    for (const int each : {stored[0], stored[1], stored[2], told[0].load(), told[1].load()}) {
        all += "," + std::to_string(each);
    }
    return all;
}

// The state after a change that found no list, instead of that one.
std::string withFreshList(std::string state, const Operation& operation)
{
    return state.replace(state.find(operation.list), operation.list.size(), kFresh);
}

void undo()
{
    add(on<0>);  // so that a watcher that has no callback and is still subscribed goes too
    remove(on<1>);
    REQUIRE(remove(on<0>));
    vconf_set_int(kVolatile.c_str(), 0);
}

// ---- starved --------------------------------------------------------------------------------------------------------

// Runs the operation with the n-th allocation failing. Returns 0 when there was none to fail, kWay and the place of the
// way in which the operation failed, or kNoWay: the desk's store answers with a failure, and its log loses a line.
constexpr int kNoWay = 9, kWay = 10, kLastWay = 19;
int starve(const Operation& operation, int n, bool warm)
{
    const auto works = [&] {
        fill(operation);
        prepare(operation);
        return operation.run();
    };
    if (warm) {
        REQUIRE(works());
        undo();
    }
    if (warm || !kOnDesk) {
        fill(operation);
    }
    prepare(operation);
    runsOperations = true;
    othersStarve = kOnDesk && operation.run == deliver;
    const char* result = kThrows;
    failingAllocation = n;
    try {
        result = operation.run() ? "done" : "failed";
    } catch (const std::bad_alloc&) {
    }
    const bool starved = failingAllocation.exchange(0) == 0;
    std::string outcome = result;
#ifndef ON_DESK
    for (const std::string& event : mock::takeEvents()) {
        outcome += event;
    }
#endif

    const std::string now = state();
    REQUIRE(finish(start([&] {
                mock::reset();
                _exit(works() ? 0 : 1);
            })) == 0);
    REQUIRE(works());  // as it does in the child, so no lock is held
    undo();
    fill(operation);
    prepare(operation);
    const std::string before = state();
    const bool foundNoList = kOnDesk && operation.run == enable && now == withFreshList(before, operation);
    REQUIRE(operation.run());
    // The desk's store may have refused a write of which setString cannot tell.
    REQUIRE(result == "done"s ? now == state() || foundNoList || (kOnDesk && now == before) : now == before);
    undo();
    if (!starved) {
        return 0;
    }
    const auto way = std::find_if(operation.ways.begin(), operation.ways.end(),
                                  [&](const std::string& each) { return outcome.find(each) != std::string::npos; });
    REQUIRE(way != operation.ways.end() || (kOnDesk && result != kThrows));
    return way != operation.ways.end() ? kWay + static_cast<int>(way - operation.ways.begin()) : kNoWay;
}

TEST(Starved, LeavesTheStateOfBeforeOrAfterAndNothingElse)
{
    char scratch[] = "/dev/shm/zol-test-XXXXXX";  // nothing waits for a disk there
    ASSERT_NE(nullptr, mkdtemp(scratch));
    setenv("ZOL_VCONF_DIR", (scratch + "/store"s).c_str(), 1);
    setenv("ZOL_DLOG", (scratch + "/log"s).c_str(), 1);
    for (const Operation& operation : operations) {
        std::set<int> codes;
        for (int warm = operation.cold ? 0 : 1; warm <= 1; ++warm) {
            int n = 0, code = 0;
            do {
                if (kOnDesk && warm == 0) {
                    std::filesystem::remove_all(scratch + "/store"s);
                    inChild([&] { fill(operation); });
                }
                ++n;
                code = finish(start([&] { std::exit(starve(operation, n, warm == 1)); }));
                codes.insert(code);
            } while (code >= kNoWay && code <= kLastWay);
            EXPECT_EQ(0, code) << operation.name << ", warm " << warm << ", allocation " << n;
        }
        for (size_t i = 0; i < operation.ways.size(); ++i) {
            EXPECT_TRUE(codes.count(kWay + static_cast<int>(i)) == 1 || (kOnDesk && operation.ways[i] != kThrows))
                << operation.name << ": " << operation.ways[i];
        }
    }
    std::filesystem::remove_all(scratch);
}

// ---- refused --------------------------------------------------------------------------------------------------------

#ifndef ON_DESK
using mock::line;
constexpr char kClass[] = "ZOLSystemDataClass.cpp";
constexpr char kWatcher[] = "VconfCallbackGenerator.cpp";

// What follows when a call is refused: the result, the state, and what else is done. A line of the log changes nothing.
enum Left { kBefore, kAfter, kFreshList };
struct Refusal {
    bool result = true;
    Left left = kAfter;
    mock::Events then{};
};
const std::string kNoText = line(kClass, "getString", "vconf_get_str is failed");
const std::map<std::string, Refusal> refusals = {
    {"vconf_get_str", {false, kBefore, {kNoText}}},
    {"vconf_get_str for a change",
     {true,
      kFreshList,
      {kNoText, line(kClass, "SetZOLConcurrentMode", "json parsing is failed"),
       line(kClass, "setString", "key[" + kList + "] Value [" + kFresh + "]"),
       "vconf_set_str " + kList + "=" + kFresh}}},
    {"vconf_set_str", {true, kBefore}},
    {"vconf_get_int", {false, kBefore, {line(kClass, "getInt", "failed to get vconf key (" + kVolume + ")")}}},
    {"vconf_set_int", {false, kBefore, {line(kClass, "setInt", "failed to set vconf key (" + kVolatile + ")")}}},
    {"vconf_get_bool", {false, kBefore, {line(kClass, "getBool", "failed to get vconf key (" + kActivated + ")")}}},
    {"vconf_set_bool", {false, kBefore, {line(kClass, "setBool", "failed to set vconf key (" + kActivated + ")")}}},
    {"vconf_notify_key_changed",
     {false, kBefore, {line(kWatcher, "RegisterCallback", "failed to vconf_notify_key_changed")}}},
    {"vconf_ignore_key_changed",
     {false, kAfter, {line(kWatcher, "UnregisterCallback", "failed to unregister cb for (" + kCountry + ")")}}},
};

TEST(Refused, EachCallInTurnGivesItsResultLinesAndState)
{
    for (const Operation& operation : operations) {
        mock::Events whole;
        std::string states[3];
        for (size_t i = 0; i <= whole.size(); ++i) {  // first without a refusal
            std::string call = i == 0 ? "" : whole[i - 1].substr(0, whole[i - 1].find(' '));
            SCOPED_TRACE(operation.name + ", "s + std::to_string(i) + ": " + call);
            mock::reset();
            fill(operation);
            prepare(operation);
            states[kBefore] = i == 0 ? state() : states[kBefore];
            mock::takeEvents();
            mock::Locked()->refuseAt = static_cast<int>(i);
            const bool result = operation.run();
            mock::Events events = mock::takeEvents();
            const std::string now = state();
            undo();
            if (i == 0) {
                whole = events;
                states[kAfter] = now;
                states[kFreshList] = withFreshList(states[kBefore], operation);
            }
            call += call == "vconf_get_str" && operation.run == enable ? " for a change" : "";
            const auto known = refusals.find(call);
            const Refusal expected = known != refusals.end() ? known->second : Refusal();
            mock::Events all(whole.begin(),
                             known != refusals.end() ? whole.begin() + static_cast<std::ptrdiff_t>(i) : whole.end());
            all.insert(all.end(), expected.then.begin(), expected.then.end());
            EXPECT_EQ(expected.result, result);
            EXPECT_EQ(all, events);
            EXPECT_EQ(states[expected.left], now);
        }
    }
}
#endif

}  // namespace
