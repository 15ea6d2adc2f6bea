// The registry and the watchers, over the platform mock. The hazards of threads come last: each test there fails, hangs
// or is reported by a sanitizer when the protection that it is about is taken away.

#include <gmock/gmock.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <sstream>
#include <thread>

#include "VconfCallbackGenerator.h"
#include "ZOLSystemDataNotify.h"
#include "capi-zol-tv.h"
#include "child.h"
#include "platform_mock.h"

using mock::Events;
using mock::onEvent;
using mock::received;

namespace {

class NotifyTest : public testing::Test {
    void SetUp() override { mock::reset(); }
};

// Notes "value data" among the events; the user data is a text. Changes the event, of which the next callback sees
// nothing. The number makes distinct callbacks.
template <class Value, int>
void on(Value value, void* data)
{
    std::ostringstream text;
    text << std::boolalpha << value << " " << static_cast<const char*>(data);
    mock::note(text.str());
    mock::record->value = {2, "changed"};
}
constexpr auto onText = on<std::string, 1>;
constexpr auto onTextToo = on<std::string, 2>;
char one[] = "one", two[] = "two", three[] = "three";

const auto untyped = [](auto callback) { return reinterpret_cast<void*>(callback); };

constexpr char kRegistry[] = "ZOLSystemDataNotifyClass.cpp";
std::string watcherLine(const std::string& function, const std::string& message)
{
    return mock::line("VconfCallbackGenerator.cpp", function, message);
}
std::string added(const std::string& message) { return watcherLine("RegisterCallback", message); }
std::string removed(const std::string& message) { return watcherLine("UnregisterCallback", message); }
std::string delivered(const std::string& message) { return watcherLine("VconfCallbackMethod", message); }
std::string invoked(const std::string& key) { return delivered("Vconf cb invoked : " + key); }

const auto calling = [](auto callback, const std::string& what = "call cb") {
    return delivered(what + " (" + testing::PrintToString(untyped(callback)) + ")");
};

const std::string kRemoving = "VconfCallbackGenerator.cpp: UnregisterCallback: \"Start\"\n";
const std::string kEnd = "VconfCallbackGenerator.cpp: ~VconfCallbackGenerator: \"Start\"\n";
const std::string kEmpty = removed("nodeList is empty, call ");
const std::string kSuccess = added("RegisterCallback SUCCESS");
const std::string kUnsubscribed = delivered("isExistVconfCallback is FALSE");

// The making of a topic's watcher, and its release.
Events created(const std::string& topic, const std::string& key, int type)
{
    return {
        mock::line(kRegistry, "Register" + topic + "Callback", "Create VconfCallbackGenerator : " + key),
        watcherLine("VconfCallbackGenerator", "VconfCallbackGenerator type(" + std::to_string(type) + ") : " + key)};
}
Events released(const std::string& topic)
{
    return {mock::line(kRegistry, "Unregister" + topic + "Callback", "Remove callbackGenerator"), kEnd};
}

// Compares the result of a call and all that it did.
void expectCall(int expected, int result, const Events& events, int line = __builtin_LINE())
{
    EXPECT_EQ(expected, result) << "in line " << line;
    mock::expectEvents(events, line);
}

// A type, and values with what the callbacks are told.
using Kind = std::pair<int, std::vector<std::pair<mock::Value, std::string>>>;

template <class Value>
void watchTopic(const Kind& kind, const std::string& name, const std::string& key,
                int (*add)(void (*)(Value, void*), void*), int (*remove)(void (*)(Value, void*)))
{
    SCOPED_TRACE(name);
    const auto first = on<Value, 1>, second = on<Value, 2>, third = on<Value, 3>;
    const auto& [type, values] = kind;
    expectCall(0, remove(first), {});
    expectCall(1, add(first, one), created(name, key, type) + Events{"vconf_notify_key_changed " + key, kSuccess});
    expectCall(1, add(first, two), {added("failed to register callback, it is already existed")});
    expectCall(1, add(second, two), {kSuccess});
    expectCall(1, add(third, three), {kSuccess});
    for (const auto& [value, text] : values) {
        expectCall(1, mock::fire(key, value),
                   {invoked(key), calling(first), text + " one", calling(second), text + " two", calling(third),
                    text + " three"});
    }
    expectCall(1, remove(first), {kRemoving});
    expectCall(0, remove(first), {kRemoving, removed("Can't find registered callback")});
    void* const watcher = mock::attempted().userData;  // an event is for whom it is handed to, under any name
    mock::deliver({"db/another", VconfCallbackGenerator::VconfCallbackMethod, watcher}, values[0].first);
    EXPECT_EQ(Events({values[0].second + " two", values[0].second + " three"}), received());
    expectCall(1, remove(third), {kRemoving});
    expectCall(1, remove(second), Events{kRemoving, kEmpty, "vconf_ignore_key_changed " + key} + released(name));
}

TEST_F(NotifyTest, EveryTopicIsWatchedUnderItsKeyInItsType)
{
    const Kind text = {2, {{"[]", "[]"}, {"", ""}}};
    const Kind number = {1, {{-5, "-5"}}};
    const Kind toggle = {0, {{1, "true"}, {0, "false"}, {2, "false"}}};
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
const Events kCreated = created("ZOLLanguage", kLanguage, 2), kReleased = released("ZOLLanguage");
constexpr char kIgnore[] = "vconf_ignore_key_changed db/multi-assistant/zol_language";

TEST_F(NotifyTest, RefusalsAreAnsweredAndTheWatcherStaysOrGoes)
{
    mock::refuse("vconf_notify_key_changed");
    mock::refuse("vconf_ignore_key_changed");
    expectCall(0, addLanguage(nullptr, one), kCreated + Events{added("callback is NULL")});
    expectCall(0, removeLanguage(nullptr), Events{kRemoving, removed("callback is NULL")} + kReleased);
    expectCall(0, addLanguage(onText, one), kCreated + Events{kNotify, added("failed to vconf_notify_key_changed")});
    expectCall(0, addLanguage(nullptr, one), {added("callback is NULL")});
    expectCall(0, removeLanguage(onText), Events{kRemoving, removed("isExistVconfCallback is false")} + kReleased);
    expectCall(0, removeLanguage(onText), {});
    expectCall(1, addLanguage(onText, one), kCreated + Events{kNotify, kSuccess});
    expectCall(0, removeLanguage(onText),
               {kRemoving, kEmpty, kIgnore, removed("failed to unregister cb for (" + std::string(kLanguage) + ")")});
    expectCall(0, removeLanguage(onText), {kRemoving, removed("NodeList is emptry")});
    expectCall(1, addLanguage(onTextToo, two), {kSuccess});  // it is still subscribed
    expectCall(1, removeLanguage(onTextToo), Events{kRemoving, kEmpty, kIgnore} + kReleased);
    std::mutex keyLock;
    expectCall(0, __unRegisterVconfCallback(nullptr, one, keyLock), {});
}

using Watcher = VconfCallbackGenerator;

TEST_F(NotifyTest, EventsThatCannotBeDeliveredAreLoggedAndCallNobody)
{
    keynode_t node{"db/k", -1, {}};
    Watcher text(DATA_TYPE_STRING, "db/k"), odd(static_cast<DataValueType>(3), "db/odd");
    const auto expectDelivery = [](keynode_t* event, void* watcher, const Events& rest) {
        mock::takeEvents();
        Watcher::VconfCallbackMethod(event, watcher);
        mock::expectEvents(Events(event == nullptr ? 0 : 1, invoked("db/k")) + rest);
    };
    EXPECT_EQ("db/k", text.GetVconfPath());
    expectDelivery(nullptr, &text, {delivered("vconf keynode_t is NULL")});
    expectDelivery(&node, nullptr, {delivered("This can not be a null pointer")});
    expectDelivery(&node, &text, {kUnsubscribed});
    onEvent("vconf_notify_key_changed db/k",  // a store that calls back at once
            [&] { expectDelivery(&node, &text, {kUnsubscribed}); });
    EXPECT_EQ(1, text.RegisterCallback(untyped(onText), one));
    EXPECT_EQ(1, odd.RegisterCallback(untyped(onText), one));
    EXPECT_TRUE(text.IsExistVconfCallback());
    expectDelivery(&node, &text, {delivered("vconf keynode_t has no text")});
    expectDelivery(&node, &odd, {delivered("Unknown Type")});
    for (Watcher* each : {&text, &odd}) {
        mock::refuse("vconf_ignore_key_changed");
        EXPECT_EQ(0, each->UnregisterCallback(untyped(onText)));
    }
    expectDelivery(&node, &text, {});
    expectDelivery(&node, &odd, {delivered("Unknown Type")});
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
    mock::fire("db/k", "x");
    EXPECT_EQ(Events(), received());
}

// A program that is not position-independent, as this one is, has an address of its own for every function that it
// calls.
TEST_F(NotifyTest, AProgramAndTheLibraryHaveOneDispatchFunction)
{
    Watcher watcher(DATA_TYPE_STRING, "db/k");
    watcher.RegisterCallback(untyped(onText), one);
    EXPECT_EQ(Watcher::VconfCallbackMethod, mock::attempted().handler);
}

// ---- hazards --------------------------------------------------------------------------------------------------------

constexpr int kRounds = 100;

// Gives another thread a chance to run to where it has to wait. Nothing depends on its having got there.
void giveWay() { std::this_thread::sleep_for(std::chrono::microseconds(100)); }

// Runs something on a thread that stops at its first event of that kind until `meanwhile` is done, and waits for its
// end. Leaves the events after the stop.
void stopAt(const std::string& event, const std::function<void()>& body, const std::function<void()>& meanwhile)
{
    const Gate reached, go;
    onEvent(event, [&] {
        reached.open();
        go.pass();
    });
    const auto stopped = std::async(std::launch::async, body);
    reached.pass();
    meanwhile();
    mock::takeEvents();
    go.open();
}

// The same; another thread, which runs `waiting`, has to wait for the one that is stopped.
void expectToWait(const std::string& event, const std::function<void()>& body, const std::function<void()>& waiting,
                  const std::function<void()>& meanwhile = giveWay)
{
    std::atomic<bool> done{false};
    std::future<void> other;
    stopAt(event, body, [&] {
        other = std::async(std::launch::async, [&] {
            waiting();
            done = true;
        });
        for (int round = 0; round < kRounds && !done; ++round) {
            giveWay();
        }
        meanwhile();
        EXPECT_FALSE(done);
    });
}

TEST_F(NotifyTest, FirstRegistrationsAtOnceSubscribeOnce)
{
    expectToWait(
        kNotify, [] { EXPECT_EQ(1, addLanguage(onText, one)); }, [] { EXPECT_EQ(1, addLanguage(onTextToo, two)); });
    EXPECT_EQ(1, mock::fire(kLanguage, "x"));
    EXPECT_EQ(Events({"x one", "x two"}), received());
    EXPECT_EQ(2, removeLanguage(onText) + removeLanguage(onTextToo));
}

TEST_F(NotifyTest, ARegistrationDuringTheLastRemovalIsSubscribedAndADeliveryCallsNobody)
{
    EXPECT_EQ(1, addLanguage(onText, one));
    expectToWait(
        kIgnore, [] { EXPECT_EQ(1, removeLanguage(onText)); }, [] { EXPECT_EQ(1, addLanguage(onTextToo, two)); });
    EXPECT_EQ(1, mock::fire(kLanguage, "x"));
    EXPECT_EQ(Events{"x two"}, received());
    expectToWait(
        kIgnore, [] { EXPECT_EQ(1, removeLanguage(onTextToo)); },
        [] { mock::fire(kLanguage, "x"); });  // which is past its look at the flag
    EXPECT_EQ(Events(), received());
}

TEST_F(NotifyTest, ALateEventTouchesNothingAlsoWhenTheTopicIsRegisteredAnew)
{
    mock::Subscription late;
    onEvent(kNotify, [&late] {  // a store that calls back at once
        late = mock::attempted();
        mock::deliver(late, "early");
    });
    EXPECT_EQ(1, addLanguage(onText, one));
    EXPECT_EQ(Events(), received());
    EXPECT_EQ(1, removeLanguage(onText));
    std::fill_n(static_cast<char*>(late.userData), sizeof(Watcher), '\xff');  // to mislead who looks all the same
    for (const bool anew : {false, true}) {
        EXPECT_EQ(anew ? 1 : 0, anew ? addLanguage(onText, one) : removeLanguage(onText));
        mock::takeEvents();
        mock::deliver(late, "late");
        mock::expectEvents({invoked(kLanguage), kUnsubscribed});
    }
    mock::fire(kLanguage, "x");
    EXPECT_EQ(Events{"x one"}, received());
    EXPECT_EQ(1, removeLanguage(onText));
}

TEST_F(NotifyTest, ARemovalWaitsForTheCallback)
{
    addLanguage(onText, one);
    expectToWait(
        "x one", [] { mock::fire(kLanguage, "x"); }, [] { EXPECT_EQ(1, removeLanguage(onText)); },
        [] { EXPECT_EQ(0, addLanguage(nullptr, nullptr)); });  // which takes the key lock and nothing else
}

TEST_F(NotifyTest, ExitInsideACallbackEndsTheProcess)
{
    inChild([] {
        static Watcher watcher(DATA_TYPE_STRING, "db/k");
        const ZOLStringCallback leave = [](std::string, void*) { std::exit(0); };
        watcher.RegisterCallback(untyped(leave), nullptr);
        mock::fire("db/k", "x");
        _exit(1);
    });
}

TEST_F(NotifyTest, AReleaseWaitsForTheDispatchesInside)
{
    mock::refuse("vconf_notify_key_changed");
    EXPECT_EQ(0, addLanguage(onText, one));
    expectToWait(
        kUnsubscribed, [] { mock::deliver(mock::attempted(), "x"); }, [] { EXPECT_EQ(0, removeLanguage(onText)); },
        [] { EXPECT_EQ(kReleased[0], mock::takeEvents().back()); });  // the slot is empty by now
    mock::expectEvents({kReleased[1]});
}

TEST_F(NotifyTest, ARegistrationWaitsForTheRelease)
{
    mock::refuse("vconf_notify_key_changed");
    EXPECT_EQ(0, addLanguage(onText, one));
    std::future<int> removal, registration;
    const auto deliver = [] { mock::deliver(mock::attempted(), "x"); };
    stopAt(kUnsubscribed, deliver, [&] {
        const Gate isReleasing;
        onEvent(kReleased[0], [&isReleasing] { isReleasing.open(); });
        removal = std::async(std::launch::async, removeLanguage, onText);
        isReleasing.pass();
        registration = std::async(std::launch::async, addLanguage, onText, one);
        giveWay();
    });
    EXPECT_EQ(0, removal.get());
    EXPECT_EQ(1, registration.get());
    mock::expectEvents(Events{kReleased[1]} + kCreated + Events{kNotify, kSuccess});
    EXPECT_EQ(1, removeLanguage(onText));
}

// Each event finds the watcher in another state. None of them may put off the lines of an unregistration.
TEST_F(NotifyTest, AReleaseIsLoggedBeforeTheUnregistrationReturns)
{
    mock::refuse("vconf_notify_key_changed");
    addLanguage(onText, one);  // so that there is somebody to deliver to
    std::atomic<bool> done{false};
    const auto delivering = std::async(std::launch::async, [&done] {
        while (!done) {
            mock::deliver(mock::attempted(), "x");
        }
    });
    removeLanguage(onText);
    for (int round = 0; round < 20 * kRounds && !HasFailure(); ++round) {
        mock::takeEvents();
        EXPECT_EQ(1, addLanguage(onText, one));
        EXPECT_EQ(1, removeLanguage(onText));
        const Events events = mock::takeEvents();
        for (const std::string& line : {kCreated[0], kCreated[1], kReleased[0], kReleased[1]}) {
            EXPECT_EQ(1, std::count(events.begin(), events.end(), line)) << line;
        }
    }
    done = true;
}

TEST_F(NotifyTest, AWatcherIsNotReleasedWhileAnOperationIsInsideIt)
{
    // Whether the watcher is subscribed at first, where a thread is inside it, what that one does, and the events then.
    const std::tuple<int, std::string, std::function<void()>, Events> rows[] = {
        // a registration that is about to subscribe a watcher which an unregistration finds unsubscribed
        {0, kNotify, [] { EXPECT_EQ(1, addLanguage(onText, one)); }, {kSuccess}},
        // an unregistration that has just begun, while another removes the last callback
        {1, kRemoving, [] { EXPECT_EQ(0, removeLanguage(onTextToo)); },
         Events{removed("isExistVconfCallback is false")} + kReleased},
        // a registration that fails inside it: the release that it put off is made up for under the right name
        {1, added("callback is NULL"), [] { EXPECT_EQ(0, addLanguage(nullptr, one)); }, kReleased},
    };
    for (const auto& [isSubscribed, event, inside, rest] : rows) {
        mock::refuse("vconf_notify_key_changed", isSubscribed - 1);
        EXPECT_EQ(isSubscribed, addLanguage(onText, one));
        stopAt(event, inside, [subscribed = isSubscribed] { EXPECT_EQ(subscribed, removeLanguage(onText)); });
        mock::expectEvents(rest);
    }
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
            mock::fire("db/comss/countrycode", "x");
            mock::fire(kLanguage, "x");
            removeLanguage(onTextToo);
            ZOLSystemDataNotify::UnregisterOSDCountryCallback(busy);
        }
    };
    std::vector<std::future<void>> users(4);
    for (std::future<void>& user : users) {
        user = std::async(std::launch::async, use);
    }
    users.clear();  // when they have ended
    EXPECT_EQ(0U, mock::Locked()->subscriptions.size());
}

TEST_F(NotifyTest, TopicsShareNeitherALockNorACacheLine)
{
    using Notify = ZOLSystemDataNotify;
    const auto addressOf = [](auto add, auto remove, auto callback) {  // of a topic's watchers, at two places in turn
        const auto next = [=] {
            add(callback, nullptr);
            remove(callback);
            return reinterpret_cast<std::uintptr_t>(mock::attempted().userData);
        };
        return std::min(next(), next());
    };
    std::uintptr_t other = 0;
    onEvent(kCreated[0], [&] {  // with the language's key lock held
        other = addressOf(Notify::RegisterZOLActivatedCallback, Notify::UnregisterZOLActivatedCallback, on<bool, 1>);
    });
    const std::uintptr_t language = addressOf(addLanguage, removeLanguage, onText);
    EXPECT_EQ(0U, (language - other) % 64);
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
    const std::pair<ZOLStringCallback, Events> callbacks[] = {
        // and what comes after their call
        {thrower, {calling(thrower, "exception in cb"), calling(onText), "x one"}},
        {[](std::string, void*) { pthread_exit(nullptr); }, {}},
        {[](std::string, void*) { isCancelled = true; }, {calling(onText)}}};
    mock::setHook([](const std::string&) { pointOfCancellation(); });
    for (const auto& [callback, events] : callbacks) {
        EXPECT_EQ(1, addLanguage(callback, nullptr));
        EXPECT_EQ(1, addLanguage(onText, one));
        mock::takeEvents();
        std::thread([] { mock::fire(kLanguage, "x"); }).join();
        mock::expectEvents(Events{invoked(kLanguage), calling(callback)} + events);
        EXPECT_EQ(1, removeLanguage(callback));
        EXPECT_EQ(1, mock::fire(kLanguage, "y"));
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
    mock::expectEvents(Events{kRemoving, kEmpty, kIgnore} + kReleased);
}

}  // namespace
