// Watches over the platform mock. Without the protection that it is about, a test fails, hangs or upsets a sanitizer.

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <future>
#include <sstream>
#include <thread>

#include "ZOLVconfKeys.h"
#include "ZOLWatch.h"
#include "child.h"
#include "platform_mock.h"

namespace {

namespace key = ZOLVconfKey;
using mock::Events;
using Watch = ZOLWatch;

// A callable that notes its name and the value.
auto noting(const std::string& name)
{
    return [=](const auto& data) { mock::note((std::ostringstream() << std::boolalpha << name << ' ' << data).str()); };
}
Watch language(const std::string& name) { return Watch::ZOLLanguage(noting(name)); }
int fire(const std::string& value) { return mock::fire(key::ZOLLanguage, value); }
void giveWay() { std::this_thread::sleep_for(std::chrono::milliseconds(10)); }

class WatchTest : public testing::Test {
    void SetUp() override { mock::reset(); }
    void TearDown() override  // if the last watch ended in a callable, the next one unsubscribes
    {
        EXPECT_TRUE(language("last"));
        EXPECT_EQ(0U, mock::Locked()->subscriptions.size());
    }
};

template <class Make>
void expectCalls(const char* path, const mock::Value& value, const std::string& text, Make make)
{
    const Watch first = make(noting("first")), second = make(noting("second"));
    mock::fire(path, value);
    EXPECT_EQ(Events({"first " + text, "second " + text}), mock::received());
}

// The other topics' functions come from the same macro, which does not compile with a wrong type.
TEST_F(WatchTest, CallsInTheOrderOfMaking)
{
    expectCalls(key::ZOLLanguage, "de", "de", [](auto call) { return Watch::ZOLLanguage(call); });
    expectCalls(key::BackgroundVolume, -4, "-4", [](auto call) { return Watch::BackgroundVolume(call); });
    expectCalls(key::ZOLActivated, 2, "false", [](auto call) { return Watch::ZOLActivated(call); });
}

TEST_F(WatchTest, AnExceptionStopsNoOtherCallable)
{
    const Watch throwing = Watch::ZOLLanguage([](const std::string& /*value*/) { throw 1; });
    const Watch other = language("other");
    fire("1");
    EXPECT_THAT(mock::Locked()->events, testing::Contains(testing::HasSubstr("exception in cb")));
    EXPECT_EQ(Events({"other 1"}), mock::received());
}

TEST_F(WatchTest, EmptyCallablesGiveFalse)
{
    EXPECT_FALSE(Watch::ZOLLanguage(std::function<void(std::string)>()));
    struct Resettable {  // can be assigned null, but not compared with it
        Resettable& operator=(std::nullptr_t) { return *this; }
        void operator()(const std::string& /*value*/) {}
    };
    EXPECT_TRUE(Watch::ZOLLanguage(Resettable()));
}

TEST_F(WatchTest, ARefusalHarmsNoLaterWatch)
{
    for (const std::string operation : {"notify", "ignore"}) {
        mock::refuse("vconf_" + operation + "_key_changed");
        EXPECT_EQ(operation == "ignore", bool(language("refused")));
        const Watch next = language("next");
        fire("1");
        EXPECT_EQ(Events({"next 1"}), mock::received());
    }
}

TEST_F(WatchTest, CallablesEndOtherWatches)
{
    Watch before = language("before"), after;
    Watch country = Watch::OSDCountry(noting("country"));
    const Watch ending = Watch::ZOLLanguage([&](const std::string& /*value*/) {
        before.end();
        after.end();
        country.end();
    });
    after = language("after");
    fire("1");
    fire("2");
    EXPECT_EQ(Events({"before 1"}), mock::received());
    EXPECT_EQ(0, mock::fire(key::OSDCountry, "x"));
}

TEST_F(WatchTest, ACallableThatEndsItselfIsKept)
{
    auto token = std::make_shared<int>();
    const std::weak_ptr<int> callable = token;
    Watch own;
    own = Watch::ZOLLanguage([&own, token = std::move(token)](const std::string& /*value*/) {
        const std::weak_ptr<int> running = token;
        own.end();
        mock::note(running.expired() ? "destroyed" : "kept");
    });
    fire("1");
    EXPECT_EQ(Events({"kept"}), mock::received());
    EXPECT_TRUE(callable.expired());
}

TEST_F(WatchTest, ANewWatchWaitsForTheNextEvent)
{
    std::vector<Watch> made;
    const Watch making = Watch::ZOLLanguage([&](const std::string& /*value*/) { made.push_back(language("made")); });
    fire("1");
    fire("2");
    EXPECT_EQ(Events({"made 2"}), mock::received());
}

TEST_F(WatchTest, DestroyedCallablesEndTheirWatches)
{
    Watch outside = Watch::ZOLLanguage([held = language("outside")](const std::string& /*value*/) {});
    Watch inside = Watch::ZOLLanguage([held = language("inside")](const std::string& /*value*/) {});
    const Watch ending = Watch::ZOLLanguage([&inside](const std::string& /*value*/) { inside.end(); });
    outside.end();
    fire("1");
    fire("2");
    EXPECT_EQ(Events({"inside 1"}), mock::received());
}

// The caller may then free what the callable uses. The other watch keeps the topic subscribed.
TEST_F(WatchTest, EndWaitsForTheCallable)
{
    const Gate running;
    std::atomic<bool> returned{false};
    Watch watch = Watch::ZOLLanguage([&](const std::string& /*value*/) {
        running.open();
        giveWay();
        returned = true;
    });
    const Watch other = language("other");
    const auto delivery = std::async(std::launch::async, fire, "1");
    running.pass();
    watch.end();
    EXPECT_TRUE(returned);
}

TEST_F(WatchTest, TheLastEndLetsOthersCome)
{
    Watch made;
    std::thread others;
    mock::onEvent("VconfCallbackGenerator.cpp: UnregisterCallback: \"Start\"\n", [&] {
        others = std::thread([&made] {
            fire("0");
            made = language("made");
        });
        giveWay();
    });
    language("last").end();
    others.join();
    fire("1");
    EXPECT_EQ(Events({"made 1"}), mock::received());
}

TEST_F(WatchTest, ThreadsMakeMoveAndEndWatches)
{
    const auto use = [] {
        for (int round = 0; round < 200; ++round) {
            std::atomic<int> calls{0};
            std::vector<Watch> watches;
            for (int made = 0; made < 3; ++made) {  // the vector moves them as it grows
                watches.push_back(Watch::ZOLLanguage([&calls](const std::string& /*value*/) { ++calls; }));
            }
            EXPECT_EQ(1, fire("x"));
            EXPECT_LE(3, calls);
        }
    };
    const std::future<void> second = std::async(std::launch::async, use), third = std::async(std::launch::async, use);
    use();
}

// As a static watch ends when the child exits. In the child the topic's lock stays locked for ever.
TEST_F(WatchTest, AChildEndsTheParentsWatch)
{
    const Gate running, ended;
    Watch watch = Watch::ZOLLanguage([&](const std::string& /*value*/) {
        running.open();
        ended.pass();
    });
    const auto delivery = std::async(std::launch::async, mock::deliver, mock::attempted(), "1");
    running.pass();
    inChild([&watch] { watch.end(); });
    ended.open();
}

// What a plugin leaves behind would be called by the next event, or keep it from being unloaded.
TEST_F(WatchTest, APluginIsUnloaded)
{
    void* const plugin = dlopen(WATCH_PLUGIN, RTLD_NOW);
    ASSERT_NE(nullptr, plugin) << dlerror();
    const auto follow = reinterpret_cast<void (*)(void (*)(const char*))>(dlsym(plugin, "follow"));
    follow([](const char* value) { mock::note(value); });
    EXPECT_EQ(1, mock::fire(key::WebAppInstall, "1"));
    EXPECT_EQ(Events({"1"}), mock::received());
    follow(nullptr);
    dlclose(plugin);
    EXPECT_EQ(nullptr, dlopen(WATCH_PLUGIN, RTLD_NOW | RTLD_NOLOAD));
    EXPECT_EQ(0, mock::fire(key::WebAppInstall, "2"));
}

}  // namespace
