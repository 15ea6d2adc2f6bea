// Memory that runs out at any point of an operation. The library starves alone: the memory of the mock is spared.

#include <gmock/gmock.h>

#include <atomic>
#include <new>

#include "ZOLWatch.h"
#include "capi-zol-tv.h"
#include "platform_mock.h"

extern std::atomic<int> failingAllocation;

bool isCounted() { return mock::inside == 0; }

using namespace std::string_literals;

namespace {

constexpr char kText[] = "longer than a string holds in itself";
constexpr char kOther[] = "another that is longer than a string holds in itself";
constexpr char kApp[] = "an app whose name is longer than that";

const std::string kLanguage = "db/multi-assistant/zol_language";
const std::string kList = "db/multi-assistant/alexa_language";
const std::string kCountry = "db/comss/countrycode";  // is watched

std::string longList(const std::string& lastAppid)
{
    std::string list = "[";
    for (int i = 0; i < 40; ++i) {
        list += R"({"appid":"com.example.another.app","concurrent":"on"},)";  // the list outgrows a block
    }
    return list + R"({"appid":")" + lastAppid + R"(","concurrent":"off"}])";
}

// Where the operations put what they read.
std::string text;
std::vector<std::string> apps;

int received[2];
template <int which>
void on(std::string value, void* /*data*/)
{
    received[which] += value == kText ? 1 : 0;
}
bool add(ZOLStringCallback callback) { return ZOLSystemDataNotifyRegisterOSDCountryCallback(callback, nullptr) == 1; }
bool remove(ZOLStringCallback callback) { return ZOLSystemDataNotifyUnregisterOSDCountryCallback(callback) == 1; }

// Changes the watched key. One of the callbacks may go without for lack of memory.
const mock::Value kChange = kText;
void change()
{
    received[0] = received[1] = 0;
    mock::fire(kCountry, kChange);
}
bool deliver()
{
    change();
    EXPECT_TRUE(received[0] <= 1 && received[1] <= 1 && received[0] + received[1] >= 1);
    return received[0] + received[1] == 2;
}
bool enable() { return ZOLSystemDataEnableZOLConcurrentMode(kApp); }

struct Operation {
    const char* name;
    bool (*run)();
    std::string ways;   // in which it fails for lack of memory
    int callbacks = 0;  // that are registered before
    std::string list = longList(kApp);
};

const std::string kNoNode = "Fail to malloc, poitner is NULL|Fail to grow nodeList";

// The flat forms go through those of the classes. What is not here does not allocate.
const Operation operations[] = {
    {"getString", [] { return ZOLSystemDataGetZOLLanguage(text); }, "bad_alloc"},
    {"setString", [] { return ZOLSystemDataSetZOLLanguage(kOther); }, "bad_alloc"},
    {"a new list", enable, "bad_alloc", 0, "no list"},
    {"an entry changed", enable, "bad_alloc"},
    {"an entry added", enable, "bad_alloc", 0, longList("another")},
    {"the list read", [] { return ZOLSystemDataGetZOLConcurrentAppList(apps); }, "bad_alloc"},
    {"the first callback added", [] { return add(on<0>); }, "bad_alloc|" + kNoNode},
    {"another callback added", [] { return add(on<1>); }, kNoNode, 1},
    {"a callback removed", [] { return remove(on<0>); }, "none", 2},
    {"the last callback removed", [] { return remove(on<0>); }, "none", 1},
    {"a watch", [] { return bool(ZOLWatch::OSDCountry([](const std::string&) {})); }, "bad_alloc|failed"},
    {"a delivery", deliver, "exception in cb", 2},
};

void prepare(const Operation& operation)
{
    vconf_set_str(kLanguage.c_str(), kText);
    vconf_set_str(kList.c_str(), operation.list.c_str());
    text = kOther;
    apps = {"kept"};
    EXPECT_TRUE(operation.callbacks < 1 || add(on<0>));
    EXPECT_TRUE(operation.callbacks < 2 || add(on<1>));
}

std::vector<std::string> state()
{
    change();
    std::vector<std::string> all = apps;
    const auto& store = mock::state.store;
    all.insert(all.end(), {std::get<std::string>(store.at(kLanguage)), std::get<std::string>(store.at(kList)), text,
                           std::to_string(received[0]), std::to_string(received[1])});
    return all;
}

void undo()
{
    add(on<0>);  // so that a watcher that has no callback and is still subscribed goes too
    remove(on<1>);
    EXPECT_TRUE(remove(on<0>));
}

// Runs the operation with the n-th allocation failing, and returns whether there was one to fail.
bool starve(const Operation& operation, int n)
{
    SCOPED_TRACE(operation.name + ", allocation "s + std::to_string(n));
    prepare(operation);
    std::string result = "bad_alloc";
    mock::takeEvents();
    failingAllocation = n;
    try {
        result = operation.run() ? "done" : "failed";
    } catch (const std::bad_alloc&) {
    }
    const bool starved = failingAllocation.exchange(0) == 0;
    const std::string outcome = result + testing::PrintToString(mock::takeEvents());

    const auto now = state();
    undo();
    prepare(operation);
    const auto before = state();
    EXPECT_TRUE(operation.run());  // so no lock is held
    EXPECT_EQ(result == "done" ? state() : before, now);
    undo();
    EXPECT_THAT(outcome, testing::ContainsRegex(starved ? operation.ways : "done"));
    return starved;
}

TEST(Starved, LeavesTheStateOfBeforeOrAfterAndNothingElse)
{
    for (const Operation& operation : operations) {
        for (int n = 1; starve(operation, n) && !HasFailure(); ++n) {
        }
    }
}

}  // namespace
