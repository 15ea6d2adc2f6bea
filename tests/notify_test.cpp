// The registry and the watchers, over the platform mock. The hazards of threads come last: each test there fails, hangs
// or is reported by a sanitizer when the protection that it is about is taken away.

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "VconfCallbackGenerator.h"
#include "ZOLSystemDataNotify.h"
#include "capi-zol-tv.h"
#include "child.h"
#include "platform_mock.h"

using mock::boolean;
using mock::Events;

namespace {

std::mutex toldLock;
std::vector<std::string>& told = *new std::vector<std::string>;  // never destroyed: some tests deliver to the very end

std::vector<std::string> takeTold()
{
    const std::lock_guard<std::mutex> guard(toldLock);
    return std::exchange(told, {});
}

class NotifyTest : public testing::Test {
    void SetUp() override
    {
        mock::reset();
        takeTold();
    }
};

// Writes down "value data"; the user data is a text. The number makes distinct callbacks.
template <class Value, int>
void on(Value value, void* data)
{
    std::ostringstream text;
    text << std::boolalpha << value << " " << static_cast<const char*>(data);
    const std::lock_guard<std::mutex> guard(toldLock);
    told.push_back(text.str());
}
constexpr auto onText = on<std::string, 1>;
constexpr auto onTextToo = on<std::string, 2>;
char one[] = "one";
char two[] = "two";

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

std::string calling(void* callback)
{
    std::ostringstream address;
    address << callback;
    return delivered("call cb (" + address.str() + ")");
}

const std::string kRemoving = "VconfCallbackGenerator.cpp: UnregisterCallback: \"Start\"";
const std::string kEnd = "VconfCallbackGenerator.cpp: ~VconfCallbackGenerator: \"Start\"";
const std::string kSuccess = added("RegisterCallback SUCCESS");

// The making of a topic's watcher, and then some.
Events created(const std::string& topic, const std::string& key, int type, const Events& more)
{
    Events all = {
        mock::line(kRegistry, "Register" + topic + "Callback", "Create VconfCallbackGenerator : " + key),
        watcherLine("VconfCallbackGenerator", "VconfCallbackGenerator type(" + std::to_string(type) + ") : " + key)};
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
void step(int expected, int result, const Events& events, int line = __builtin_LINE())
{
    EXPECT_EQ(expected, result) << "in line " << line;
    mock::did(events, line);
}

template <class Callback>
struct Kind {
    int type = 0;
    Callback first = nullptr, second = nullptr;
    std::vector<std::pair<mock::Value, std::string>> values;  // and what the callbacks are told
};

template <class Callback>
void watchTopic(const Kind<Callback>& kind, const std::string& name, const std::string& key,
                int (*add)(Callback, void*), int (*remove)(Callback))
{
    SCOPED_TRACE(name);
    step(0, remove(kind.first), {});
    step(1, add(kind.first, one), created(name, key, kind.type, {"vconf_notify_key_changed " + key, kSuccess}));
    step(1, add(kind.first, two), {added("failed to register callback, it is already existed")});
    step(1, add(kind.second, two), {kSuccess});
    mock::takeEvents();
    for (const auto& [value, expected] : kind.values) {
        EXPECT_EQ(1, mock::fire(key, value));
        EXPECT_EQ(Events({expected + " one", expected + " two"}), takeTold());
        mock::did(
            {delivered("Vconf cb invoked : " + key), calling(untyped(kind.first)), calling(untyped(kind.second))});
    }
    step(1, remove(kind.first), {kRemoving});
    step(0, remove(kind.first), {kRemoving, removed("Can't find registered callback")});
    step(1, remove(kind.second),
         released(name, {kRemoving, removed("nodeList is empty, call "), "vconf_ignore_key_changed " + key}));
}

TEST_F(NotifyTest, EveryTopicIsWatchedUnderItsKeyInItsType)
{
    const Kind<ZOLStringCallback> text = {2, onText, onTextToo, {{mock::text("[]"), "[]"}, {mock::text(""), ""}}};
    const Kind<ZOLIntCallback> number = {1, on<int, 1>, on<int, 2>, {{mock::integer(-5), "-5"}}};
    const Kind<ZOLBoolCallback> toggle = {
        0, on<bool, 1>, on<bool, 2>, {{boolean(1), "true"}, {boolean(0), "false"}, {boolean(2), "false"}}};
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
    step(0, addLanguage(nullptr, one), creates({added("callback is NULL")}));
    step(0, removeLanguage(nullptr), releases({kRemoving, removed("callback is NULL")}));
    step(0, addLanguage(onText, one), creates({kNotify, added("failed to vconf_notify_key_changed")}));
    step(0, addLanguage(nullptr, one), {added("callback is NULL")});
    step(0, removeLanguage(onText), releases({kRemoving, removed("isExistVconfCallback is false")}));
    step(0, removeLanguage(onText), {});
    step(1, addLanguage(onText, one), creates({kNotify, kSuccess}));
    step(0, removeLanguage(onText),
         {kRemoving, empty, kIgnore, removed("failed to unregister cb for (" + std::string(kLanguage) + ")")});
    step(0, removeLanguage(onText), {kRemoving, removed("NodeList is emptry")});
    step(1, addLanguage(onTextToo, two), {kSuccess});  // it is still subscribed
    step(1, removeLanguage(onTextToo), releases({kRemoving, empty, kIgnore}));
    step(0, __unRegisterVconfCallback(nullptr, one, toldLock), {});
}

TEST_F(NotifyTest, EventsThatCannotBeDeliveredAreLoggedAndCallNobody)
{
    keynode_t node{"db/k", VCONF_TYPE_STRING, {}};
    VconfCallbackGenerator text(DATA_TYPE_STRING, "db/k");
    VconfCallbackGenerator odd(static_cast<DataValueType>(3), "db/odd");
    const auto logs = [&node](void* watcher, const std::string& message) {
        mock::takeEvents();
        VconfCallbackGenerator::VconfCallbackMethod(&node, watcher);
        mock::did({delivered("Vconf cb invoked : db/k"), delivered(message)});
    };
    EXPECT_EQ("db/k", text.GetVconfPath());
    mock::takeEvents();
    VconfCallbackGenerator::VconfCallbackMethod(nullptr, &text);
    mock::did({delivered("vconf keynode_t is NULL")});
    logs(nullptr, "This can not be a null pointer");
    logs(&text, "isExistVconfCallback is FALSE");
    EXPECT_EQ(1, text.RegisterCallback(untyped(onText), one));
    EXPECT_EQ(1, odd.RegisterCallback(untyped(onText), one));
    EXPECT_TRUE(text.IsExistVconfCallback());
    logs(&text, "vconf keynode_t has no text");
    logs(&odd, "Unknown Type");
    EXPECT_EQ(Events(), takeTold());
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

void at(const std::string& event, const std::function<void()>& act)
{
    mock::setHook([=](const std::string& each) {
        if (each == event) {
            act();
        }
    });
}

void runAtOnce(const std::vector<std::function<void()>>& bodies)
{
    std::vector<std::future<void>> running;  // each waits in its destructor
    running.reserve(bodies.size());
    for (const auto& body : bodies) {
        running.push_back(std::async(std::launch::async, body));
    }
}

// Removes a topic's last callback; meanwhile another thread starts on its own work.
void removeLastDuring(const std::function<void()>& other)
{
    std::thread thread;
    at(kIgnore, [&] {
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
    at(event, [&] {
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
    mock::did(rest);
}

TEST_F(NotifyTest, FirstRegistrationsAtOnceSubscribeOnce)
{
    const ZOLStringCallback callbacks[] = {on<std::string, 1>, on<std::string, 2>, on<std::string, 3>,
                                           on<std::string, 4>, on<std::string, 5>, on<std::string, 6>};
    at(kNotify, giveWay);
    std::vector<std::function<void()>> registrations;
    for (const auto callback : callbacks) {
        registrations.emplace_back([callback] { EXPECT_EQ(1, addLanguage(callback, one)); });
    }
    for (int round = 0; round < kRounds; ++round) {
        runAtOnce(registrations);
        ASSERT_EQ(1, mock::fire(kLanguage, mock::text("x")));
        EXPECT_EQ(registrations.size(), takeTold().size());
        for (const auto callback : callbacks) {
            EXPECT_EQ(1, removeLanguage(callback));
        }
    }
}

TEST_F(NotifyTest, ARegistrationDuringTheLastRemovalIsSubscribed)
{
    for (int round = 0; round < kRounds; ++round) {
        removeLastDuring([] { EXPECT_EQ(1, addLanguage(onTextToo, two)); });
        ASSERT_EQ(1, mock::fire(kLanguage, mock::text("x")));
        ASSERT_EQ(Events{"x two"}, takeTold());
        EXPECT_EQ(1, removeLanguage(onTextToo));
    }
}

TEST_F(NotifyTest, ADeliveryThatMeetsTheEndOfItsWatcherTouchesNothing)
{
    for (int round = 0; round < kRounds; ++round) {  // it is past its look at the flag while the list is being emptied
        removeLastDuring([] { mock::fire(kLanguage, mock::text("x")); });
    }
    addLanguage(onText, one);
    const mock::Subscription late = mock::Locked()->subscriptions.at(0);
    removeLanguage(onText);
    mock::takeEvents();
    mock::deliver(late, mock::text("x"));
    mock::did({delivered("Vconf cb invoked : " + late.key)});
    mock::deliver({"db/odd", late.handler, late.userData}, mock::text("x"));
    mock::did({delivered("Vconf cb invoked : db/odd")});
    EXPECT_EQ(Events(), takeTold());
}

TEST_F(NotifyTest, TheEndOfAWatcherWaitsForTheCallbacksThatRun)
{
    Stop running;
    auto watcher = std::make_unique<VconfCallbackGenerator>(DATA_TYPE_STRING, "db/k");
    watcher->RegisterCallback(untyped(slow), &running);
    watcher->RegisterCallback(untyped(onText), one);
    const auto delivery = std::async(std::launch::async, [] { mock::fire("db/k", mock::text("x")); });
    running.reached.pass();
    const auto end = std::async(std::launch::async, [&watcher] { watcher.reset(); });
    giveWay();
    running.go.open();
    end.wait();
    EXPECT_EQ(Events{"x one"}, takeTold());
}

TEST_F(NotifyTest, EventsForGoneWatchersDoNotReachOthersAtTheirAddresses)
{
    using Watcher = VconfCallbackGenerator;
    struct Place {
        alignas(Watcher) unsigned char bytes[sizeof(Watcher)];
    };
    static std::array<Place, 100> places;
    const auto useEverySecond = [](std::size_t first) {
        for (std::size_t i = first; i < places.size(); i += 2) {
            auto* watcher = new (&places[i]) Watcher(DATA_TYPE_INT, "db/number");
            watcher->RegisterCallback(untyped(on<int, 1>), one);
            watcher->UnregisterCallback(untyped(on<int, 1>));
            watcher->~Watcher();
        }
    };
    std::thread other(useEverySecond, 0);
    useEverySecond(1);
    other.join();
    for (Place& place : places) {
        auto* watcher = new (&place) Watcher(DATA_TYPE_STRING, "db/text");
        watcher->RegisterCallback(untyped(onText), one);
        mock::deliver({"db/number", Watcher::VconfCallbackMethod, watcher}, mock::text("stale"));
        mock::deliver({"db/other/name", Watcher::VconfCallbackMethod, watcher}, mock::text("x"));
        EXPECT_EQ(Events{"x one"}, takeTold());
        watcher->~Watcher();
    }
}

TEST_F(NotifyTest, AWatcherIsNotReleasedUnderAnOperationThatIsInsideIt)
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
}

TEST_F(NotifyTest, AnUnregistrationReturnsAfterTheCallbackAndHoldsNoKeyLockMeanwhile)
{
    static Stop running;
    static std::atomic<bool> ended;
    const ZOLStringCallback late = [](std::string, void*) {
        running.reach();
        giveWay();
        ended = true;
    };
    addLanguage(late, nullptr);
    const auto delivery = std::async(std::launch::async, [] { mock::fire(kLanguage, mock::text("x")); });
    running.reached.pass();
    const Gate begun;
    at(kRemoving, [&begun] { begun.open(); });
    const auto removal = std::async(std::launch::async, [late] {
        EXPECT_EQ(1, removeLanguage(late));
        EXPECT_TRUE(ended);
    });
    begun.pass();
    giveWay();
    EXPECT_EQ(0, addLanguage(nullptr, nullptr));  // takes the key lock and nothing else
    running.go.open();
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

TEST_F(NotifyTest, ACallbackThatThrowsHoldsNothingUp)
{
    const ZOLStringCallback thrower = [](std::string, void*) { throw std::runtime_error("from a callback"); };
    addLanguage(thrower, nullptr);
    addLanguage(onText, one);
    EXPECT_EQ(1, mock::fire(kLanguage, mock::text("x")));
    EXPECT_EQ(Events{"x one"}, takeTold());
    EXPECT_THAT(mock::takeEvents(), Contains(testing::HasSubstr("exception in cb (0x")));
    EXPECT_EQ(1, removeLanguage(thrower));
    EXPECT_EQ(1, removeLanguage(onText));
}

constexpr auto addActivated = ZOLSystemDataNotify::RegisterZOLActivatedCallback;
int fireActivated() { return mock::fire("db/multi-assistant/activated", mock::boolean(1)); }

// The process ends, from the main thread and from a callback, while watchers stand and deliveries are under way.
TEST_F(NotifyTest, TheProcessMayEndAtAnyTime)
{
    for (const bool fromCallback : {false, true}) {
        inChild([fromCallback] {
            static const Gate called;
            addLanguage([](std::string, void*) { called.open(); }, nullptr);
            addActivated([](bool, void*) { std::exit(0); }, nullptr);
            const auto deliver = [] {
                for (;;) {
                    mock::fire(kLanguage, mock::text("x"));
                }
            };
            std::thread(deliver).detach();
            std::thread(deliver).detach();
            called.pass();
            REQUIRE(!fromCallback || fireActivated() == 0);
        });
    }
}

// A child gets a new mock: other threads may have been in the midst of changing the old one. To wait for them is not
// possible here, since this program sets up its handlers after the library, so that they would be called before its.
const int mockIsForkSafe = pthread_atfork(nullptr, nullptr, [] {
    new (&mock::mutex) std::mutex;
    new (&mock::state) mock::State;
});

// A child of fork() has no registrations and finds no lock taken, whatever the parent's threads held.
TEST_F(NotifyTest, AChildOfForkStartsWithoutRegistrations)
{
    inChild([] {
        using Notify = ZOLSystemDataNotify;
        static Stop running, subscribing, creating;
        static int called;
        static pid_t child;
        const auto useAfresh = [] {
            mock::reset();
            mock::refuse("vconf_notify_key_changed");  // nobody in the child has asked for a release
            REQUIRE(Notify::RegisterOSDCountryCallback(onText, one) == 0);
            REQUIRE(addLanguage(onText, one) == 1 && removeLanguage(slow) == 0);
            REQUIRE(mock::fire(kLanguage, mock::text("x")) == 1 && takeTold() == Events{"x one"});
            REQUIRE(addActivated(on<bool, 1>, one) == 1 && Notify::RegisterOSDCountryCallback(onText, one) == 1);
            REQUIRE(Notify::RegisterDravixResetCountCallback(on<int, 1>, one) == 1 && removeLanguage(onText) == 1);
            REQUIRE(Notify::UnregisterZOLActivatedCallback(on<bool, 1>) == 1);
            REQUIRE(Notify::UnregisterOSDCountryCallback(onText) == 1);
            REQUIRE(Notify::UnregisterDravixResetCountCallback(on<int, 1>) == 1);
            const Events events = mock::takeEvents();
            REQUIRE(std::count(events.begin(), events.end(), kEnd) == 4);
            _exit(0);
        };
        addLanguage(slow, &running);
        addActivated([](bool, void*) { child = fork(); }, nullptr);
        addActivated([](bool, void*) { ++called; }, nullptr);
        // Other threads hold a watcher's lock, the turn of another one and, for a short while, a key lock.
        mock::setHook([](const std::string& event) {
            if (event == "vconf_notify_key_changed db/comss/countrycode") {
                subscribing.reach();
            } else if (event.find("Create VconfCallbackGenerator : db/dravix") != std::string::npos) {
                creating.reached.open();
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        });
        std::thread delivery([] { mock::fire(kLanguage, mock::text("x")); });
        running.reached.pass();
        std::thread subscription([] { Notify::RegisterOSDCountryCallback(onText, one); });
        subscribing.reached.pass();
        REQUIRE(Notify::UnregisterOSDCountryCallback(onText) == 0);  // which asks for a release
        std::thread creation([] { Notify::RegisterDravixResetCountCallback(on<int, 1>, one); });
        creating.reached.pass();
        REQUIRE(finish(start(useAfresh)) == 0);
        creation.join();
        fireActivated();  // which forks while it holds its watcher's lock
        if (child == 0) {
            REQUIRE(called == 0);  // the callbacks after the one that forked are the parent's
            useAfresh();
        }
        REQUIRE(finish(child) == 0 && called == 1);
        subscribing.go.open();
        subscription.join();
        running.go.open();
        delivery.join();
    });
}

}  // namespace
