// The registry and the watchers, over the platform mock. The hazards of threads come last: each test there fails, hangs
// or is reported by a sanitizer when the protection that it is about is taken away.

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "VconfCallbackGenerator.h"
#include "ZOLSystemDataNotify.h"
#include "capi-zol-tv.h"
#include "child.h"
#include "platform_mock.h"

using testing::ElementsAre;

// ---- memory that runs out, for one size of block in one thread
// -------------------------------------------------------

static thread_local size_t refusedSize = 0;
__attribute__((noinline)) void* operator new(size_t size)
{
    void* block = size == refusedSize ? nullptr : std::malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}
__attribute__((noinline)) void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t /*size*/) noexcept { operator delete(block); }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define REFUSES_MALLOC
extern "C" void* __libc_malloc(size_t size);
extern "C" __attribute__((visibility("default"))) void* malloc(size_t size) noexcept
{
    return size == refusedSize ? nullptr : __libc_malloc(size);
}
#endif

namespace {

void* untyped(ZOLIntCallback callback) { return reinterpret_cast<void*>(callback); }
void* untyped(ZOLStringCallback callback) { return reinterpret_cast<void*>(callback); }

// What callbacks were told: "value data". The user data is a text.
std::mutex toldLock;
std::vector<std::string>& told = *new std::vector<std::string>;  // never destroyed: some tests deliver to the very end

void tell(const std::string& value, void* data)
{
    const std::lock_guard<std::mutex> guard(toldLock);
    told.push_back(value + " " + static_cast<const char*>(data));
}
std::vector<std::string> takeTold()
{
    const std::lock_guard<std::mutex> guard(toldLock);
    return std::exchange(told, {});
}
template <int>
void onBool(bool value, void* data)
{
    tell(value ? "true" : "false", data);
}
template <int>
void onInt(int value, void* data)
{
    tell(std::to_string(value), data);
}
template <int>
void onString(std::string value, void* data)
{
    tell(value, data);
    value += "changed";
}

char one[] = "one";
char two[] = "two";

std::string line(const std::string& function, const std::string& message)
{
    return function + ": DLOG_ERROR \"" + message + "\"";
}
std::string start(const std::string& function) { return function + ": \"Start\""; }

// A step of a story: what was called, its result, and all that it did.
struct Step {
    std::function<int()> call;
    int result;
    std::vector<std::string> events;
};
void tellStory(const std::vector<Step>& steps)
{
    for (size_t i = 0; i < steps.size(); ++i) {
        EXPECT_EQ(steps[i].result, steps[i].call()) << "step " << i;
        EXPECT_EQ(steps[i].events, mock::takeEvents()) << "step " << i;
    }
}

using NotifyTest = mock::Test;

// ---- the topics
// ------------------------------------------------------------------------------------------------------

template <class Callback>
using Forms = std::array<std::pair<int (*)(Callback, void*), int (*)(Callback)>, 2>;
#define FORMS(name)                                                                                           \
    {                                                                                                         \
        {                                                                                                     \
            {ZOLSystemDataNotify::Register##name##Callback, ZOLSystemDataNotify::Unregister##name##Callback}, \
            {                                                                                                 \
                ZOLSystemDataNotifyRegister##name##Callback, ZOLSystemDataNotifyUnregister##name##Callback    \
            }                                                                                                 \
        }                                                                                                     \
    }

template <class Callback>
void watchTopic(const std::string& name, const std::string& key, const std::string& type, const Forms<Callback>& forms,
                Callback first, Callback second, const std::vector<std::pair<mock::Value, std::string>>& values)
{
    SCOPED_TRACE(name);
    const std::string add = "Register" + name + "Callback";
    const std::string remove = "Unregister" + name + "Callback";
    for (const auto& form : forms) {
        tellStory({
            {[&] { return form.second(first); }, 0, {}},
            {[&] { return form.first(first, one); },
             1,
             {line(add, "Create VconfCallbackGenerator : " + key),
              line("VconfCallbackGenerator", "VconfCallbackGenerator type(" + type + ") : " + key),
              "vconf_notify_key_changed " + key, line("RegisterCallback", "RegisterCallback SUCCESS")}},
            {[&] { return form.first(first, two); },
             1,
             {line("RegisterCallback", "failed to register callback, it is already existed")}},
            {[&] { return form.first(second, two); }, 1, {line("RegisterCallback", "RegisterCallback SUCCESS")}},
        });
        for (const auto& [value, expected] : values) {
            mock::put(key, value);
            EXPECT_EQ(1, mock::fire(key));
            EXPECT_THAT(takeTold(), ElementsAre(expected + " one", expected + " two"));
        }
        mock::takeEvents();
        tellStory({
            {[&] { return form.second(first); }, 1, {start("UnregisterCallback")}},
            {[&] { return form.second(first); },
             0,
             {start("UnregisterCallback"), line("UnregisterCallback", "Can't find registered callback")}},
            {[&] { return form.second(second); },
             1,
             {start("UnregisterCallback"), line("UnregisterCallback", "nodeList is empty, call "),
              "vconf_ignore_key_changed " + key, line(remove, "Remove callbackGenerator"),
              start("~VconfCallbackGenerator")}},
        });
    }
}

TEST_F(NotifyTest, EveryTopicIsWatchedUnderItsKeyInItsType)
{
    const std::vector<std::pair<mock::Value, std::string>> texts = {{mock::text("[]"), "[]"}, {mock::text(""), ""}};
    const std::vector<std::pair<mock::Value, std::string>> numbers = {{mock::integer(-5), "-5"}};
    const std::vector<std::pair<mock::Value, std::string>> switches = {
        {mock::boolean(1), "true"}, {mock::boolean(0), "false"}, {mock::boolean(2), "false"}};
#define STRING_TOPIC(name, key) \
    watchTopic<ZOLStringCallback>(#name, key, "2", FORMS(name), onString<1>, onString<2>, texts)
#define INT_TOPIC(name, key) watchTopic<ZOLIntCallback>(#name, key, "1", FORMS(name), onInt<1>, onInt<2>, numbers)
#define BOOL_TOPIC(name, key) watchTopic<ZOLBoolCallback>(#name, key, "0", FORMS(name), onBool<1>, onBool<2>, switches)
    STRING_TOPIC(ZOLConcurrentAppList, "db/multi-assistant/alexa_language");
    INT_TOPIC(DravixResetCount, "db/dravix/reset_count");
    INT_TOPIC(ServiceResetCount, "db/factory/service_reset_count");
    INT_TOPIC(FactoryResetCount, "db/factory/factory_reset_count");
    STRING_TOPIC(WebAppUninstall, "memory/was/app_uninstall");
    STRING_TOPIC(WebAppInstall, "memory/was/app_install");
    STRING_TOPIC(OSDCountry, "db/comss/countrycode");
    INT_TOPIC(BackgroundVolume, "db/menu/system/accessibility/voiceguide/tv_bg_volume");
    STRING_TOPIC(ZOLSituationalHintSupported, "db/multi-assistant/situational_hint_supported");
    STRING_TOPIC(ZOLLanguage, "db/multi-assistant/zol_language");
    STRING_TOPIC(ZOLDefaultAssistantAppid, "db/multi-assistant/default_assistant_appid");
    BOOL_TOPIC(ZOLActivated, "db/multi-assistant/activated");
    BOOL_TOPIC(ZOLMultipleMode, "db/multi-assistant/multiple_mode");
}

// ---- refusals, in the order of a watcher's life
// ----------------------------------------------------------------------

constexpr auto addLanguage = ZOLSystemDataNotify::RegisterZOLLanguageCallback;
constexpr auto removeLanguage = ZOLSystemDataNotify::UnregisterZOLLanguageCallback;
const std::string& kLanguage = *new std::string("db/multi-assistant/zol_language");
const std::string kAdd = "RegisterZOLLanguageCallback";
const std::string kRemove = "UnregisterZOLLanguageCallback";

TEST_F(NotifyTest, RefusalsAreAnsweredAndTheWatcherStaysOrGoes)
{
    const std::vector<std::string> created = {
        line(kAdd, "Create VconfCallbackGenerator : " + kLanguage),
        line("VconfCallbackGenerator", "VconfCallbackGenerator type(2) : " + kLanguage)};
    const auto after = [&](std::vector<std::string> more) {
        more.insert(more.begin(), created.begin(), created.end());
        return more;
    };
    const std::string notify = "vconf_notify_key_changed " + kLanguage;
    const std::string ignore = "vconf_ignore_key_changed " + kLanguage;
    const std::string success = line("RegisterCallback", "RegisterCallback SUCCESS");
    const std::string begin = start("UnregisterCallback");
    const std::string empty = line("UnregisterCallback", "nodeList is empty, call ");
    const std::vector<std::string> removed = {line(kRemove, "Remove callbackGenerator"),
                                              start("~VconfCallbackGenerator")};
    mock::refuseNth("vconf_notify_key_changed", 1);
    mock::refuseNth("vconf_ignore_key_changed", 1);
    tellStory({
        {[] { return addLanguage(nullptr, one); }, 0, after({line("RegisterCallback", "callback is NULL")})},
        {[] { return removeLanguage(nullptr); },
         0,
         {begin, line("UnregisterCallback", "callback is NULL"), removed[0], removed[1]}},
        {[] { return addLanguage(onString<1>, one); }, 0,
         after({notify, line("RegisterCallback", "failed to vconf_notify_key_changed")})},
        {[] { return addLanguage(nullptr, one); }, 0, {line("RegisterCallback", "callback is NULL")}},
        {[] { return removeLanguage(onString<1>); },
         0,
         {begin, line("UnregisterCallback", "isExistVconfCallback is false"), removed[0], removed[1]}},
        {[] { return removeLanguage(onString<1>); }, 0, {}},
        {[] { return addLanguage(onString<1>, one); }, 1, after({notify, success})},
        {[] { return removeLanguage(onString<1>); },
         0,
         {begin, empty, ignore, line("UnregisterCallback", "failed to unregister cb for (" + kLanguage + ")")}},
        {[] { return removeLanguage(onString<1>); }, 0, {begin, line("UnregisterCallback", "NodeList is emptry")}},
        {[] { return addLanguage(onString<2>, two); }, 1, {success}},  // it is still subscribed
        {[] { return removeLanguage(onString<2>); }, 1, {begin, empty, ignore, removed[0], removed[1]}},
    });
    EXPECT_EQ(0, __unRegisterVconfCallback(nullptr, one, toldLock));
}

TEST_F(NotifyTest, LinesNameTheirFile)
{
    addLanguage(onString<1>, one);
    mock::fire(keynode_t{kLanguage.c_str(), 2, {}});
    for (const mock::Line& each : mock::takeLines()) {
        EXPECT_EQ(each.function == kAdd ? "ZOLSystemDataNotifyClass.cpp" : "VconfCallbackGenerator.cpp", each.file);
    }
    removeLanguage(onString<1>);
}

// ---- a watcher by itself
// ---------------------------------------------------------------------------------------------

struct FreeLater {  // a watcher at an address of our choosing
    alignas(VconfCallbackGenerator) unsigned char space[sizeof(VconfCallbackGenerator)];
    VconfCallbackGenerator* make(DataValueType type, const char* key)
    {
        return new (space) VconfCallbackGenerator(type, key);
    }
};

TEST_F(NotifyTest, EventsThatCannotBeDeliveredAreLoggedAndCallNobody)
{
    const auto dispatch = VconfCallbackGenerator::VconfCallbackMethod;
    const std::string invoked = line("VconfCallbackMethod", "Vconf cb invoked : db/k");
    keynode_t node{"db/k", VCONF_TYPE_STRING, {}};
    node.value.s = nullptr;
    VconfCallbackGenerator text(DATA_TYPE_STRING, "db/k");
    VconfCallbackGenerator odd(static_cast<DataValueType>(3), "db/odd");
    const auto call = [&](keynode_t* event, void* watcher) { return [=] { return dispatch(event, watcher), 0; }; };
    mock::takeEvents();
    EXPECT_EQ("db/k", text.GetVconfPath());
    tellStory({{call(nullptr, &text), 0, {line("VconfCallbackMethod", "vconf keynode_t is NULL")}},
               {call(&node, nullptr), 0, {invoked, line("VconfCallbackMethod", "This can not be a null pointer")}},
               {call(&node, &text), 0, {invoked, line("VconfCallbackMethod", "isExistVconfCallback is FALSE")}}});
    EXPECT_EQ(1, text.RegisterCallback(untyped(onString<1>), one));
    EXPECT_EQ(1, odd.RegisterCallback(untyped(onString<1>), one));
    EXPECT_TRUE(text.IsExistVconfCallback());
    mock::takeEvents();
    tellStory({{call(&node, &text), 0, {invoked, line("VconfCallbackMethod", "vconf keynode_t has no text")}},
               {call(&node, &odd), 0, {invoked, line("VconfCallbackMethod", "Unknown Type")}}});
    EXPECT_THAT(takeTold(), ElementsAre());
}

TEST_F(NotifyTest, WithoutMemoryARegistrationFailsAndTheListIsAsBefore)
{
    VconfCallbackGenerator watcher(DATA_TYPE_INT, "db/k");
    const auto refused = [&](size_t size, const std::string& message) {
        mock::takeEvents();
        refusedSize = size;
        const int result = watcher.RegisterCallback(untyped(onInt<1>), one);
        refusedSize = 0;
        EXPECT_EQ(0, result);
        EXPECT_EQ(line("RegisterCallback", message), mock::takeEvents().back());
        mock::put("db/k", mock::integer(1));
        mock::fire("db/k");
        EXPECT_THAT(takeTold(), ElementsAre());
        EXPECT_TRUE(watcher.IsExistVconfCallback());
    };
#ifdef REFUSES_MALLOC
    refused(sizeof(CallbackNode), "Fail to malloc, poitner is NULL");
#endif
    refused(sizeof(CallbackNode*), "Fail to grow nodeList");
    EXPECT_EQ(1, watcher.RegisterCallback(untyped(onInt<1>), one));
    EXPECT_EQ(1, mock::count("vconf_notify_key_changed"));
    EXPECT_EQ(1, watcher.UnregisterCallback(untyped(onInt<1>)));
}

// ---- hazards
// ---------------------------------------------------------------------------------------------------------

// A point where a thread stops until it is let go.
class Stop {
public:
    void reach()
    {
        std::unique_lock<std::mutex> guard(lock_);
        reached_ = true;
        changed_.notify_all();
        changed_.wait(guard, [this] { return open_; });
    }
    void waitUntilReached()
    {
        std::unique_lock<std::mutex> guard(lock_);
        changed_.wait(guard, [this] { return reached_; });
    }
    void open()
    {
        const std::lock_guard<std::mutex> guard(lock_);
        open_ = true;
        changed_.notify_all();
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    bool reached_ = false;
    bool open_ = false;
};

// Gives another thread every chance to run to where it has to wait. Nothing depends on its having got there.
void giveWay()
{
    for (int i = 0; i < 200; ++i) {
        std::this_thread::yield();
    }
}

constexpr int kRounds = 100;

template <size_t... Index>
std::array<ZOLStringCallback, sizeof...(Index)> distinct(std::index_sequence<Index...> /*indices*/)
{
    return {onString<100 + Index>...};
}

TEST_F(NotifyTest, FirstRegistrationsAtOnceSubscribeOnce)
{
    const auto callbacks = distinct(std::make_index_sequence<6>());
    mock::setHooks({[](const std::string&) { giveWay(); }, nullptr, nullptr});
    for (int round = 1; round <= kRounds; ++round) {
        std::atomic<int> waiting{static_cast<int>(callbacks.size())};
        std::vector<std::thread> threads;
        for (const auto callback : callbacks) {
            threads.emplace_back([&waiting, callback] {
                for (--waiting; waiting > 0; std::this_thread::yield()) {
                }
                EXPECT_EQ(1, addLanguage(callback, one));
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(round, mock::count("vconf_notify_key_changed"));
        mock::put(kLanguage, mock::text("x"));
        EXPECT_EQ(1, mock::fire(kLanguage));
        EXPECT_EQ(callbacks.size(), takeTold().size());
        for (const auto callback : callbacks) {
            EXPECT_EQ(1, removeLanguage(callback));
        }
    }
}

TEST_F(NotifyTest, ARegistrationDuringTheLastRemovalIsSubscribed)
{
    mock::put(kLanguage, mock::text("x"));
    for (int round = 0; round < kRounds; ++round) {
        std::thread other;
        mock::setHooks({nullptr,
                        [&](const std::string&) {
                            other = std::thread([] { EXPECT_EQ(1, addLanguage(onString<2>, two)); });
                            giveWay();
                        },
                        nullptr});
        addLanguage(onString<1>, one);
        EXPECT_EQ(1, removeLanguage(onString<1>));
        mock::setHooks({});
        other.join();
        ASSERT_EQ(1, mock::fire(kLanguage));
        ASSERT_THAT(takeTold(), ElementsAre("x two"));
        EXPECT_EQ(1, removeLanguage(onString<2>));
    }
}

TEST_F(NotifyTest, ADeliveryThatMeetsTheEndOfItsWatcherTouchesNothing)
{
    mock::put(kLanguage, mock::text("x"));
    for (int round = 0; round < kRounds; ++round) {
        std::thread delivery;
        mock::setHooks({nullptr,
                        [&](const std::string&) {  // it is past its look at the flag while the list is being emptied
                            delivery = std::thread([] { mock::fire(kLanguage); });
                            giveWay();
                        },
                        nullptr});
        addLanguage(onString<1>, one);
        EXPECT_EQ(1, removeLanguage(onString<1>));
        delivery.join();
    }
    mock::setHooks({});
    addLanguage(onString<1>, one);
    const mock::Subscription late = mock::subscriptions().at(0);
    removeLanguage(onString<1>);
    keynode_t node{kLanguage.c_str(), VCONF_TYPE_STRING, {}};
    node.value.s = "x";
    mock::takeEvents();
    late.handler(&node, late.userData);
    EXPECT_THAT(mock::takeEvents(), ElementsAre(line("VconfCallbackMethod", "Vconf cb invoked : " + kLanguage)));
    EXPECT_THAT(takeTold(), ElementsAre());
}

TEST_F(NotifyTest, AnEventForAGoneWatcherDoesNotReachAnotherAtItsAddress)
{
    FreeLater place;
    VconfCallbackGenerator* watcher = place.make(DATA_TYPE_INT, "db/number");
    watcher->RegisterCallback(untyped(onInt<1>), one);
    watcher->UnregisterCallback(untyped(onInt<1>));
    watcher->~VconfCallbackGenerator();
    watcher = place.make(DATA_TYPE_STRING, "db/text");
    watcher->RegisterCallback(untyped(onString<1>), one);

    keynode_t stale{"db/number", VCONF_TYPE_INT, {1, nullptr}};
    VconfCallbackGenerator::VconfCallbackMethod(&stale, watcher);
    EXPECT_THAT(takeTold(), ElementsAre());
    keynode_t strange{"db/other/name", VCONF_TYPE_STRING, {}};
    strange.value.s = "x";
    VconfCallbackGenerator::VconfCallbackMethod(&strange, watcher);
    EXPECT_THAT(takeTold(), ElementsAre("x one"));
    watcher->~VconfCallbackGenerator();
}

TEST_F(NotifyTest, AWatcherIsNotReleasedUnderAnOperationThatIsInsideIt)
{
    {  // a registration that is about to subscribe a watcher which an unregistration finds unsubscribed
        mock::refuseNth("vconf_notify_key_changed", 1);
        EXPECT_EQ(0, addLanguage(onString<1>, one));
        Stop inside;
        mock::setHooks({[&](const std::string&) { inside.reach(); }, nullptr, nullptr});
        std::thread other([] { EXPECT_EQ(1, addLanguage(onString<1>, one)); });
        inside.waitUntilReached();
        EXPECT_EQ(0, removeLanguage(onString<1>));
        inside.open();
        other.join();
        mock::setHooks({});
    }
    {  // an unregistration that has just begun, while another removes the last callback
        Stop inside;
        std::atomic<bool> first{true};
        mock::setHooks({nullptr, nullptr, [&](const mock::Line& each) {
                            if (each.message == "\"Start\"" && first.exchange(false)) {
                                inside.reach();
                            }
                        }});
        std::thread other([] { EXPECT_EQ(0, removeLanguage(onString<2>)); });
        inside.waitUntilReached();
        EXPECT_EQ(1, removeLanguage(onString<1>));
        mock::takeEvents();
        inside.open();
        other.join();
        EXPECT_THAT(mock::takeEvents(),
                    ElementsAre(line("UnregisterCallback", "isExistVconfCallback is false"),
                                line(kRemove, "Remove callbackGenerator"), start("~VconfCallbackGenerator")));
        mock::setHooks({});
    }
    {  // a registration that fails inside it: the release that it put off is made up for under the right name
        addLanguage(onString<1>, one);
        Stop inside;
        mock::setHooks({nullptr, nullptr, [&](const mock::Line& each) {
                            if (each.message.find("callback is NULL") != std::string::npos) {
                                inside.reach();
                            }
                        }});
        std::thread other([] { EXPECT_EQ(0, addLanguage(nullptr, one)); });
        inside.waitUntilReached();
        EXPECT_EQ(1, removeLanguage(onString<1>));
        mock::takeEvents();
        inside.open();
        other.join();
        EXPECT_THAT(mock::takeEvents(),
                    ElementsAre(line(kRemove, "Remove callbackGenerator"), start("~VconfCallbackGenerator")));
    }
}

// While a callback runs, another thread's unregistration waits for it, and holds no key lock meanwhile.
TEST_F(NotifyTest, AnUnregistrationReturnsAfterTheCallbackAndHoldsNoKeyLockMeanwhile)
{
    static Stop running;
    static std::atomic<bool> ended;
    ended = false;
    const ZOLStringCallback slow = [](std::string, void*) {
        running.reach();
        giveWay();
        ended = true;
    };
    addLanguage(slow, nullptr);
    std::thread delivery([] {
        mock::put(kLanguage, mock::text("x"));
        mock::fire(kLanguage);
    });
    running.waitUntilReached();
    Stop begun;
    begun.open();
    mock::setHooks({nullptr, nullptr, [&](const mock::Line& each) {
                        if (each.message == "\"Start\"" && each.function == "UnregisterCallback") {
                            begun.reach();
                        }
                    }});
    std::thread removal([&] {
        EXPECT_EQ(1, removeLanguage(slow));
        EXPECT_TRUE(ended);
    });
    begun.waitUntilReached();
    giveWay();
    EXPECT_EQ(0, addLanguage(nullptr, nullptr));  // takes the key lock and nothing else
    running.open();
    removal.join();
    delivery.join();
}

// Callbacks register and unregister on other topics, on two delivering threads, while two more threads do so on all.
// The callbacks on each thread reach for later topics only, as two topics must not reach for each other.
TEST_F(NotifyTest, CallbacksUseOtherTopicsWhileAllAreUsed)
{
    static const std::array<Forms<ZOLStringCallback>, 4> topics = {
        {FORMS(WebAppUninstall), FORMS(WebAppInstall), FORMS(OSDCountry), FORMS(ZOLLanguage)}};
    static const std::array<const char*, 4> keys = {"memory/was/app_uninstall", "memory/was/app_install",
                                                    "db/comss/countrycode", kLanguage.c_str()};
    const ZOLStringCallback busy = [](std::string, void* data) {
        for (size_t next = *static_cast<size_t*>(data) + 1; next < topics.size(); ++next) {
            topics[next][0].first(onString<7>, one);
            topics[next][0].second(onString<7>);
        }
    };
    std::array<size_t, 4> indices = {0, 1, 2, 3};
    std::vector<std::thread> threads;
    for (int delivering = 0; delivering < 2; ++delivering) {
        threads.emplace_back([] {
            for (int round = 0; round < kRounds; ++round) {
                for (const char* key : keys) {
                    keynode_t node{key, VCONF_TYPE_STRING, {}};
                    node.value.s = "x";
                    mock::fire(node);
                }
            }
        });
    }
    for (int other = 0; other < 2; ++other) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                for (size_t i = 0; i < topics.size(); ++i) {
                    EXPECT_EQ(1, topics[i][0].first(busy, &indices[i]));
                    EXPECT_EQ(1, topics[i][1].first(onString<8>, one));
                    topics[i][1].second(onString<8>);
                    topics[i][0].second(busy);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    takeTold();
    EXPECT_EQ(0U, mock::subscriptions().size());
    EXPECT_EQ(mock::count("vconf_notify_key_changed"), mock::count("vconf_ignore_key_changed"));
}

TEST_F(NotifyTest, ACallbackThatThrowsHoldsNothingUp)
{
    const ZOLStringCallback thrower = [](std::string, void*) { throw std::runtime_error("from a callback"); };
    addLanguage(thrower, nullptr);
    addLanguage(onString<1>, one);
    mock::put(kLanguage, mock::text("x"));
    mock::takeEvents();
    EXPECT_EQ(1, mock::fire(kLanguage));
    EXPECT_THAT(takeTold(), ElementsAre("x one"));
    EXPECT_THAT(mock::takeEvents(), Contains(testing::HasSubstr("exception in cb (0x")));
    EXPECT_EQ(1, removeLanguage(thrower));
    EXPECT_EQ(1, removeLanguage(onString<1>));
}

// The process ends, from the main thread and from a callback, while watchers stand and deliveries are under way.
TEST_F(NotifyTest, TheProcessMayEndAtAnyTime)
{
    for (const bool fromCallback : {false, true}) {
        inChild([fromCallback] {
            static std::atomic<int> calls;
            addLanguage([](std::string, void*) { ++calls; }, nullptr);
            ZOLSystemDataNotify::RegisterZOLActivatedCallback([](bool, void*) { std::exit(0); }, nullptr);
            mock::put(kLanguage, mock::text("x"));
            mock::put("db/multi-assistant/activated", mock::boolean(1));
            for (int i = 0; i < 2; ++i) {
                std::thread([] {
                    for (;;) {
                        mock::fire(kLanguage);
                    }
                }).detach();
            }
            while (calls < 100) {
                std::this_thread::yield();
            }
            if (fromCallback) {
                mock::fire("db/multi-assistant/activated");
            }
        });
    }
}

// A child of fork() has no registrations and finds no lock taken, whatever the parent's threads held.
TEST_F(NotifyTest, AChildOfForkStartsWithoutRegistrations)
{
    inChild([] {
        static Stop running;
        static std::atomic<int> children;
        static const ZOLStringCallback slow = [](std::string, void*) { running.reach(); };
        const auto useAfresh = [] {
            mock::reset();
            REQUIRE(removeLanguage(slow) == 0 && addLanguage(onString<1>, one) == 1);
            mock::put(kLanguage, mock::text("x"));
            REQUIRE(mock::fire(kLanguage) == 1 && takeTold() == std::vector<std::string>{"x one"});
            REQUIRE(removeLanguage(onString<1>) == 1);
        };
        addLanguage(slow, nullptr);
        ZOLSystemDataNotify::RegisterZOLActivatedCallback(
            [](bool, void*) {
                const pid_t child = fork();  // from a callback, which holds its watcher's lock
                if (child != 0) {
                    children += finish(child) == 0 ? 1 : 0;
                }
            },
            nullptr);
        ZOLSystemDataNotify::RegisterZOLActivatedCallback([](bool, void*) { ++children; }, nullptr);
        mock::put(kLanguage, mock::text("x"));
        mock::put("db/multi-assistant/activated", mock::boolean(1));
        std::thread delivery([] { mock::fire(kLanguage); });
        running.waitUntilReached();  // from now on that watcher's lock is held by a thread that a child does not have
        const pid_t child = fork();
        if (child == 0) {
            useAfresh();
            _exit(0);
        }
        REQUIRE(finish(child) == 0);
        const pid_t self = getpid();
        mock::fire("db/multi-assistant/activated");
        if (getpid() != self) {
            REQUIRE(children == 0);  // the callbacks after the one that forked are the parent's
            useAfresh();
            _exit(0);
        }
        REQUIRE(children == 2);
        running.open();
        delivery.join();
    });
}

}  // namespace
