// The registry and the watchers, over the platform mock. The hazards of threads come last: each test there fails, hangs
// or is reported by a sanitizer when the protection that it is about is taken away.

#include <gmock/gmock.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include "VconfCallbackGenerator.h"
#include "ZOLSystemDataNotify.h"
#include "capi-zol-tv.h"
#include "child.h"
#include "platform_mock.h"

using mock::boolean;
using mock::Events;

namespace {

class NotifyTest : public testing::Test {
    void SetUp() override { mock::reset(); }
};

// Notes "value data" among the events; the user data is a text. The number makes distinct callbacks.
template <class Value, int>
void on(Value value, void* data)
{
    std::ostringstream text;
    text << std::boolalpha << value << " " << static_cast<const char*>(data);
    mock::note(text.str());
}
constexpr auto onText = on<std::string, 1>;
constexpr auto onTextToo = on<std::string, 2>;
constexpr auto onTextThree = on<std::string, 3>;
char one[] = "one";
char two[] = "two";
char three[] = "three";

// What the callbacks noted since the events were last taken.
Events received()
{
    Events noted;
    for (const std::string& event : mock::takeEvents()) {
        if (event.find(".cpp: ") == std::string::npos && event.find("vconf_") != 0) {
            noted.push_back(event);
        }
    }
    return noted;
}

template <class Callback>
void* untyped(Callback callback)
{
    return reinterpret_cast<void*>(callback);
}

constexpr char kRegistry[] = "ZOLSystemDataNotifyClass.cpp";
std::string watcherLine(const std::string& function, const std::string& message)
{
    return mock::line("VconfCallbackGenerator.cpp", function, message);
}
std::string added(const std::string& message) { return watcherLine("RegisterCallback", message); }
std::string removed(const std::string& message) { return watcherLine("UnregisterCallback", message); }
std::string delivered(const std::string& message) { return watcherLine("VconfCallbackMethod", message); }
std::string invoked(const std::string& key) { return delivered("Vconf cb invoked : " + key); }

std::string calling(void* callback)
{
    std::ostringstream address;
    address << callback;
    return delivered("call cb (" + address.str() + ")");
}

const std::string kRemoving = "VconfCallbackGenerator.cpp: UnregisterCallback: \"Start\"";
const std::string kEnd = "VconfCallbackGenerator.cpp: ~VconfCallbackGenerator: \"Start\"";
const std::string kSuccess = added("RegisterCallback SUCCESS");
const std::string kUnsubscribed = delivered("isExistVconfCallback is FALSE");

std::string creating(const std::string& topic, const std::string& key)
{
    return mock::line(kRegistry, "Register" + topic + "Callback", "Create VconfCallbackGenerator : " + key);
}

// The making of a topic's watcher, and then some.
Events created(const std::string& topic, const std::string& key, int type, const Events& more)
{
    Events all = {creating(topic, key), watcherLine("VconfCallbackGenerator", "VconfCallbackGenerator type(" +
                                                                                  std::to_string(type) + ") : " + key)};
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

// The release of a topic's watcher, after something.
Events released(const std::string& topic, Events before)
{
    before.insert(before.end(),
                  {mock::line(kRegistry, "Unregister" + topic + "Callback", "Remove callbackGenerator"), kEnd});
    return before;
}

// Compares the result of a call and all that it did.
void expectCall(int expected, int result, const Events& events, int line = __builtin_LINE())
{
    EXPECT_EQ(expected, result) << "in line " << line;
    mock::expectEvents(events, line);
}

struct Kind {
    int type = 0;
    std::vector<std::pair<mock::Value, std::string>> values;  // and what the callbacks are told
};

template <class Value>
void watchTopic(const Kind& kind, const std::string& name, const std::string& key,
                int (*add)(void (*)(Value, void*), void*), int (*remove)(void (*)(Value, void*)))
{
    SCOPED_TRACE(name);
    const auto first = on<Value, 1>, second = on<Value, 2>, third = on<Value, 3>;
    const auto& [type, values] = kind;
    expectCall(0, remove(first), {});
    expectCall(1, add(first, one), created(name, key, type, {"vconf_notify_key_changed " + key, kSuccess}));
    expectCall(1, add(first, two), {added("failed to register callback, it is already existed")});
    expectCall(1, add(second, two), {kSuccess});
    expectCall(1, add(third, three), {kSuccess});
    for (const auto& [value, text] : values) {
        expectCall(1, mock::fire(key, value),
                   {invoked(key), calling(untyped(first)), text + " one", calling(untyped(second)), text + " two",
                    calling(untyped(third)), text + " three"});
    }
    expectCall(1, remove(first), {kRemoving});
    expectCall(0, remove(first), {kRemoving, removed("Can't find registered callback")});
    void* const watcher = mock::Locked()->attempted.userData;  // an event is for whom it is handed to, under any name
    mock::deliver({"db/another", VconfCallbackGenerator::VconfCallbackMethod, watcher}, values[0].first);
    EXPECT_EQ(Events({values[0].second + " two", values[0].second + " three"}), received());
    expectCall(1, remove(third), {kRemoving});
    expectCall(1, remove(second),
               released(name, {kRemoving, removed("nodeList is empty, call "), "vconf_ignore_key_changed " + key}));
}

TEST_F(NotifyTest, EveryTopicIsWatchedUnderItsKeyInItsType)
{
    const Kind text = {2, {{mock::text("[]"), "[]"}, {mock::text(""), ""}}};
    const Kind number = {1, {{mock::integer(-5), "-5"}}};
    const Kind toggle = {0, {{boolean(1), "true"}, {boolean(0), "false"}, {boolean(2), "false"}}};
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): both forms are named after the one topic.
#define TOPIC(kind, name, key)                                                  \
    watchTopic(kind, #name, key, ZOLSystemDataNotify::Register##name##Callback, \
               ZOLSystemDataNotify::Unregister##name##Callback);                \
    watchTopic(kind, #name, key, ZOLSystemDataNotifyRegister##name##Callback,   \
               ZOLSystemDataNotifyUnregister##name##Callback)
    TOPIC(text, ZOLConcurrentAppList, "db/multi-assistant/alexa_language");
    TOPIC(number, DravixResetCount, "db/dravix/reset_count");
    TOPIC(number, ServiceResetCount, "db/factory/service_reset_count");
    TOPIC(number, FactoryResetCount, "db/factory/factory_reset_count");
    TOPIC(text, WebAppUninstall, "memory/was/app_uninstall");
    TOPIC(text, WebAppInstall, "memory/was/app_install");
    TOPIC(text, OSDCountry, "db/comss/countrycode");
    TOPIC(number, BackgroundVolume, "db/menu/system/accessibility/voiceguide/tv_bg_volume");
    TOPIC(text, ZOLSituationalHintSupported, "db/multi-assistant/situational_hint_supported");
    TOPIC(text, ZOLLanguage, "db/multi-assistant/zol_language");
    TOPIC(text, ZOLDefaultAssistantAppid, "db/multi-assistant/default_assistant_appid");
    TOPIC(toggle, ZOLActivated, "db/multi-assistant/activated");
    TOPIC(toggle, ZOLMultipleMode, "db/multi-assistant/multiple_mode");
}

constexpr auto addLanguage = ZOLSystemDataNotify::RegisterZOLLanguageCallback;
constexpr auto removeLanguage = ZOLSystemDataNotify::UnregisterZOLLanguageCallback;
constexpr char kLanguage[] = "db/multi-assistant/zol_language";
constexpr char kNotify[] = "vconf_notify_key_changed db/multi-assistant/zol_language";
constexpr char kIgnore[] = "vconf_ignore_key_changed db/multi-assistant/zol_language";

TEST_F(NotifyTest, RefusalsAreAnsweredAndTheWatcherStaysOrGoes)
{
    const auto creates = [](const Events& more) { return created("ZOLLanguage", kLanguage, 2, more); };
    const auto releases = [](const Events& before) { return released("ZOLLanguage", before); };
    const std::string empty = removed("nodeList is empty, call ");
    mock::refuse("vconf_notify_key_changed");
    mock::refuse("vconf_ignore_key_changed");
    expectCall(0, addLanguage(nullptr, one), creates({added("callback is NULL")}));
    expectCall(0, removeLanguage(nullptr), releases({kRemoving, removed("callback is NULL")}));
    expectCall(0, addLanguage(onText, one), creates({kNotify, added("failed to vconf_notify_key_changed")}));
    expectCall(0, addLanguage(nullptr, one), {added("callback is NULL")});
    expectCall(0, removeLanguage(onText), releases({kRemoving, removed("isExistVconfCallback is false")}));
    expectCall(0, removeLanguage(onText), {});
    expectCall(1, addLanguage(onText, one), creates({kNotify, kSuccess}));
    expectCall(0, removeLanguage(onText),
               {kRemoving, empty, kIgnore, removed("failed to unregister cb for (" + std::string(kLanguage) + ")")});
    expectCall(0, removeLanguage(onText), {kRemoving, removed("NodeList is emptry")});
    expectCall(1, addLanguage(onTextToo, two), {kSuccess});  // it is still subscribed
    expectCall(1, removeLanguage(onTextToo), releases({kRemoving, empty, kIgnore}));
    std::mutex keyLock;
    expectCall(0, __unRegisterVconfCallback(nullptr, one, keyLock), {});
}

void onEvent(const std::string& event, const std::function<void()>& act)
{
    mock::setHook([=](const std::string& each) {
        if (each == event) {
            act();
        }
    });
}

using Watcher = VconfCallbackGenerator;

TEST_F(NotifyTest, EventsThatCannotBeDeliveredAreLoggedAndCallNobody)
{
    keynode_t node{"db/k", -1, {}};
    Watcher text(DATA_TYPE_STRING, "db/k");
    Watcher odd(static_cast<DataValueType>(3), "db/odd");
    const auto expectDelivery = [&node](void* watcher, const Events& more) {
        Events all = {invoked("db/k")};
        all.insert(all.end(), more.begin(), more.end());
        mock::takeEvents();
        Watcher::VconfCallbackMethod(&node, watcher);
        mock::expectEvents(all);
    };
    EXPECT_EQ("db/k", text.GetVconfPath());
    mock::takeEvents();
    Watcher::VconfCallbackMethod(nullptr, &text);
    mock::expectEvents({delivered("vconf keynode_t is NULL")});
    expectDelivery(nullptr, {delivered("This can not be a null pointer")});
    expectDelivery(&text, {kUnsubscribed});
    onEvent("vconf_notify_key_changed db/k",
            [&] { expectDelivery(&text, {kUnsubscribed}); });  // a store that calls back at once
    EXPECT_EQ(1, text.RegisterCallback(untyped(onText), one));
    EXPECT_EQ(1, odd.RegisterCallback(untyped(onText), one));
    EXPECT_TRUE(text.IsExistVconfCallback());
    expectDelivery(&text, {delivered("vconf keynode_t has no text")});
    expectDelivery(&odd, {delivered("Unknown Type")});
    for (Watcher* each : {&text, &odd}) {
        mock::refuse("vconf_ignore_key_changed");
        EXPECT_EQ(0, each->UnregisterCallback(untyped(onText)));
    }
    expectDelivery(&text, {});
    expectDelivery(&odd, {delivered("Unknown Type")});
}

TEST_F(NotifyTest, EveryCallbackIsToldTheValueThatTheEventCameWith)
{
    for (const DataValueType type : {DATA_TYPE_INT, DATA_TYPE_STRING}) {
        keynode_t node{"db/k", -1, {1, "1"}};
        const ZOLStringCallback changeText = [](std::string, void* of) { static_cast<keynode_t*>(of)->value.s = "2"; };
        const ZOLIntCallback changeNumber = [](int, void* of) { static_cast<keynode_t*>(of)->value.i = 2; };
        auto watcher = std::make_unique<Watcher>(type, "db/k");
        watcher->RegisterCallback(type == DATA_TYPE_INT ? untyped(changeNumber) : untyped(changeText), &node);
        watcher->RegisterCallback(type == DATA_TYPE_INT ? untyped(on<int, 1>) : untyped(onText), one);
        Watcher::VconfCallbackMethod(&node, watcher.get());
        EXPECT_EQ(Events{"1 one"}, received());
        watcher.reset();
        mock::expectEvents({kEnd});  // the subscription stays
    }
}

// Programs that were built with the class know where its members are.
TEST_F(NotifyTest, TheMembersOfAWatcherAreInTheirOrder)
{
    struct Members {
        std::vector<CallbackNode*> nodeList;
        std::string vconfPath;
        std::mutex listMutex;
        std::atomic<bool> isExistVconfCallback;
        DataValueType valueType;
    };
    Watcher watcher(DATA_TYPE_STRING, "db/k");
    watcher.RegisterCallback(untyped(onText), one);
    const auto& members = reinterpret_cast<Members&>(watcher);
    EXPECT_TRUE(members.vconfPath == "db/k" && members.isExistVconfCallback && members.valueType == 2);
    EXPECT_TRUE(members.nodeList.at(0)->userData == one);
    members.nodeList[0]->callback = nullptr;  // is passed over
    mock::fire("db/k", mock::text("x"));
    EXPECT_EQ(Events(), received());
}

// ---- hazards --------------------------------------------------------------------------------------------------------

constexpr int kRounds = 100;

// A point where a thread stops until it is let go.
struct Stop {
    Gate reached, go;
    void reach() const
    {
        reached.open();
        go.pass();
    }
};

// The callback of a delivery that stops until it is let go.
void slow(std::string, void* stop) { static_cast<Stop*>(stop)->reach(); }

// Gives another thread a chance to run to where it has to wait. Nothing depends on its having got there.
void giveWay() { std::this_thread::sleep_for(std::chrono::microseconds(100)); }

void runAtOnce(const std::vector<std::function<void()>>& bodies)
{
    std::vector<std::thread> threads(bodies.begin(), bodies.end());
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// Removes a topic's last callback; meanwhile another thread starts on its own work.
void removeLastDuring(const std::function<void()>& other)
{
    std::thread thread;
    onEvent(kIgnore, [&] {
        thread = std::thread(other);
        giveWay();
    });
    EXPECT_EQ(1, addLanguage(onText, one));
    EXPECT_EQ(1, removeLanguage(onText));
    mock::setHook(nullptr);
    thread.join();
}

// Starts the thread of `other`, which stops at its first event of that kind until `meanwhile` is done. Compares the
// events after that.
void stopOther(const std::string& event, const std::function<void()>& other, const std::function<void()>& meanwhile,
               const Events& rest)
{
    Stop stop;
    std::atomic<bool> first{true};
    onEvent(event, [&] {
        if (first.exchange(false)) {
            stop.reach();
        }
    });
    std::thread thread(other);
    stop.reached.pass();
    meanwhile();
    mock::takeEvents();
    stop.go.open();
    thread.join();
    mock::setHook(nullptr);
    mock::expectEvents(rest);
}

TEST_F(NotifyTest, FirstRegistrationsAtOnceSubscribeOnce)
{
    onEvent(kNotify, giveWay);
    for (int round = 0; round < kRounds; ++round) {
        runAtOnce({[] { EXPECT_EQ(1, addLanguage(onText, one)); }, [] { EXPECT_EQ(1, addLanguage(onTextToo, one)); },
                   [] { EXPECT_EQ(1, addLanguage(onTextThree, one)); }});
        ASSERT_EQ(1, mock::fire(kLanguage, mock::text("x")));
        EXPECT_EQ(Events(3, "x one"), received());
        for (const auto callback : {onText, onTextToo, onTextThree}) {
            EXPECT_EQ(1, removeLanguage(callback));
        }
    }
}

TEST_F(NotifyTest, ARegistrationDuringTheLastRemovalIsSubscribedAndADeliveryCallsNobody)
{
    for (int round = 0; round < kRounds; ++round) {
        removeLastDuring([] { EXPECT_EQ(1, addLanguage(onTextToo, two)); });
        ASSERT_EQ(1, mock::fire(kLanguage, mock::text("x")));
        ASSERT_EQ(Events{"x two"}, received());
        EXPECT_EQ(1, removeLanguage(onTextToo));
        removeLastDuring([] { mock::fire(kLanguage, mock::text("x")); });  // which is past its look at the flag
        EXPECT_EQ(Events(), received());
    }
}

TEST_F(NotifyTest, ALateEventTouchesNothingAlsoWhenTheTopicIsRegisteredAnew)
{
    mock::Subscription late;
    onEvent(kNotify, [&late] {  // a store that calls back at once
        late = mock::Locked()->attempted;
        mock::deliver(late, mock::text("early"));
    });
    EXPECT_EQ(1, addLanguage(onText, one));
    EXPECT_EQ(Events(), received());
    mock::setHook(nullptr);
    EXPECT_EQ(1, removeLanguage(onText));
    std::fill_n(static_cast<char*>(late.userData), sizeof(Watcher), '\xff');  // to mislead who looks all the same
    for (const bool anew : {false, true}) {
        EXPECT_EQ(anew ? 1 : 0, anew ? addLanguage(onText, one) : removeLanguage(onText));
        mock::takeEvents();
        mock::deliver(late, mock::text("late"));
        mock::expectEvents({invoked(kLanguage), kUnsubscribed});
    }
    mock::fire(kLanguage, mock::text("x"));
    EXPECT_EQ(Events{"x one"}, received());
    EXPECT_EQ(1, removeLanguage(onText));
}

// Does something on another thread that has to wait for a callback, which is let go when `meanwhile` is done.
void waitForCallback(const std::string& key, const Stop& callback, const std::function<void()>& act,
                     const std::function<void()>& meanwhile)
{
    const auto delivery = std::async(std::launch::async, [&key] { mock::fire(key, mock::text("x")); });
    callback.reached.pass();
    std::atomic<bool> done{false};
    const auto waiting = std::async(std::launch::async, [&] {
        act();
        done = true;
    });
    for (int round = 0; round < kRounds && !done; ++round) {
        giveWay();
    }
    meanwhile();
    EXPECT_FALSE(done);
    callback.go.open();
}

TEST_F(NotifyTest, ARemovalAndTheEndOfAWatcherWaitForTheCallback)
{
    Stop stop;
    auto own = std::make_unique<Watcher>(DATA_TYPE_STRING, "db/k");
    own->RegisterCallback(untyped(slow), &stop);
    waitForCallback(
        "db/k", stop, [&own] { own.reset(); }, [] {});
    addLanguage(slow, &stop);
    waitForCallback(
        kLanguage, stop, [] { EXPECT_EQ(1, removeLanguage(slow)); },
        [] { EXPECT_EQ(0, addLanguage(nullptr, nullptr)); });  // which takes the key lock and nothing else
}

TEST_F(NotifyTest, AWatcherIsNotReleasedWhileAThreadIsInsideIt)
{
    // a registration that is about to subscribe a watcher which an unregistration finds unsubscribed
    mock::refuse("vconf_notify_key_changed");
    EXPECT_EQ(0, addLanguage(onText, one));
    stopOther(
        kNotify, [] { EXPECT_EQ(1, addLanguage(onText, one)); }, [] { EXPECT_EQ(0, removeLanguage(onText)); },
        {kSuccess});
    // an unregistration that has just begun, while another removes the last callback
    const auto removeLast = [] { EXPECT_EQ(1, removeLanguage(onText)); };
    stopOther(
        kRemoving, [] { EXPECT_EQ(0, removeLanguage(onTextToo)); }, removeLast,
        released("ZOLLanguage", {removed("isExistVconfCallback is false")}));
    // a registration that fails inside it: the release that it put off is made up for under the right name
    addLanguage(onText, one);
    stopOther(
        added("callback is NULL"), [] { EXPECT_EQ(0, addLanguage(nullptr, one)); }, removeLast,
        released("ZOLLanguage", {}));
    // a dispatch that finds the watcher unsubscribed
    mock::refuse("vconf_notify_key_changed");
    EXPECT_EQ(0, addLanguage(onText, one));
    const mock::Subscription refused = mock::Locked()->attempted;
    stopOther(
        kUnsubscribed, [&refused] { mock::deliver(refused, mock::text("x")); },
        [] { EXPECT_EQ(0, removeLanguage(onText)); }, released("ZOLLanguage", {}));
}

TEST_F(NotifyTest, CallbacksUseOtherTopicsWhileAllAreUsed)
{
    const ZOLStringCallback busy = [](std::string, void*) {
        addLanguage(onText, one);
        removeLanguage(onText);
    };
    const auto use = [busy] {
        for (int round = 0; round < kRounds; ++round) {
            EXPECT_EQ(1, ZOLSystemDataNotify::RegisterOSDCountryCallback(busy, nullptr));
            EXPECT_EQ(1, addLanguage(onTextToo, two));
            mock::fire("db/comss/countrycode", mock::text("x"));
            mock::fire(kLanguage, mock::text("x"));
            removeLanguage(onTextToo);
            ZOLSystemDataNotify::UnregisterOSDCountryCallback(busy);
        }
    };
    runAtOnce({use, use, use, use});
    EXPECT_EQ(0U, mock::Locked()->subscriptions.size());
}

// The address of a topic's watchers, which stand at two in turn.
template <class Callback>
std::uintptr_t addressOf(int (*add)(Callback, void*), int (*remove)(Callback), Callback callback)
{
    const auto next = [=] {
        add(callback, nullptr);
        remove(callback);
        return reinterpret_cast<std::uintptr_t>(mock::Locked()->attempted.userData);
    };
    return std::min(next(), next());
}

TEST_F(NotifyTest, TopicsShareNeitherALockNorACacheLine)
{
    using Notify = ZOLSystemDataNotify;
    std::uintptr_t activated = 0;
    onEvent(creating("ZOLLanguage", kLanguage), [&] {  // with the language's key lock held
        activated =
            addressOf(Notify::RegisterZOLActivatedCallback, Notify::UnregisterZOLActivatedCallback, on<bool, 1>);
    });
    const std::uintptr_t language = addressOf(addLanguage, removeLanguage, onText);
    EXPECT_EQ(0U, (language - activated) % 64);
}

// Cancels a thread as pthread_testcancel does, but AddressSanitizer knows of pthread_exit that the stack ends with it.
thread_local bool isCancelled = false;
void pointOfCancellation()
{
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    pthread_setcancelstate(state, nullptr);
    if (state == PTHREAD_CANCEL_ENABLE && std::exchange(isCancelled, false)) {
        pthread_exit(nullptr);
    }
}

// A thread may end in a callback and, where log lines are points of cancellation, in the midst of a release.
TEST_F(NotifyTest, ACallbackThatThrowsOrEndsItsThreadHoldsNothingUp)
{
    const ZOLStringCallback thrower = [](std::string, void*) { throw 1; };
    std::string caught = calling(untyped(thrower));
    caught.replace(caught.find("call cb"), 7, "exception in cb");
    const std::pair<ZOLStringCallback, Events> callbacks[] = {
        // and what comes after their call
        {thrower, {caught, calling(untyped(onText)), "x one"}},
        {[](std::string, void*) { pthread_exit(nullptr); }, {}},
        {[](std::string, void*) { isCancelled = true; }, {calling(untyped(onText))}}};
    mock::setHook([](const std::string&) { pointOfCancellation(); });
    for (auto [callback, events] : callbacks) {
        EXPECT_EQ(1, addLanguage(callback, nullptr));
        EXPECT_EQ(1, addLanguage(onText, one));
        mock::takeEvents();
        std::thread([] { mock::fire(kLanguage, mock::text("x")); }).join();
        events.insert(events.begin(), {invoked(kLanguage), calling(untyped(callback))});
        mock::expectEvents(events);
        EXPECT_EQ(1, removeLanguage(callback));
        EXPECT_EQ(1, mock::fire(kLanguage, mock::text("y")));
        EXPECT_EQ(Events{"y one"}, received());
        EXPECT_EQ(1, removeLanguage(onText));
    }
    EXPECT_EQ(1, addLanguage(onText, one));
    mock::takeEvents();
    mock::setHook([](const std::string& event) {
        pointOfCancellation();
        isCancelled = event == kIgnore || isCancelled;
    });
    std::thread([] {
        removeLanguage(onText);
        pointOfCancellation();
        mock::note("not cancelled");
    }).join();
    mock::expectEvents(released("ZOLLanguage", {kRemoving, removed("nodeList is empty, call "), kIgnore}));
}

}  // namespace
