// Watches over the platform mock. Each test fails, hangs or is reported by a sanitizer when the protection that it is
// about is taken away.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <future>
#include <optional>
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
    return [name](const auto& value) {
        std::ostringstream text;
        text << std::boolalpha << name << " " << value;
        mock::note(text.str());
    };
}
Watch language(const std::string& name) { return Watch::ZOLLanguage(noting(name)); }
int fire(const std::string& value) { return mock::fire(key::ZOLLanguage, mock::text(value)); }
void giveWay() { std::this_thread::sleep_for(std::chrono::milliseconds(2)); }

// Compares what callables noted.
void told(const Events& expected, int line = __builtin_LINE())
{
    Events noted;
    for (const std::string& event : mock::takeEvents()) {
        if (event.find(".cpp: ") == std::string::npos && event.find("vconf_") != 0) {
            noted.push_back(event);
        }
    }
    EXPECT_EQ(expected, noted) << "in line " << line;
}

class WatchTest : public testing::Test {
    void SetUp() override { mock::reset(); }
    void TearDown() override  // whatever was left to the next watch is made up for
    {
        EXPECT_TRUE(language("last"));
        EXPECT_EQ(0U, mock::Locked()->subscriptions.size());
    }
};

template <class Make>
void tryTopic(const char* path, const mock::Value& value, const std::string& text, Make make)
{
    mock::refuse("vconf_notify_key_changed");
    EXPECT_FALSE(make(noting("refused")));
    Watch watches[] = {make(noting("1")), make(noting("2")), make(noting("3"))};
    EXPECT_EQ(1, mock::fire(path, value));
    watches[0].end();
    watches[1] = std::move(watches[2]);
    EXPECT_EQ(1, mock::fire(path, value));
    told({"1 " + text, "2 " + text, "3 " + text, "3 " + text});
    EXPECT_TRUE(watches[1]);
    watches[1].end();
    EXPECT_FALSE(watches[1]);
    EXPECT_EQ(0, mock::fire(path, value));
}

// The others are made by the same macro, and do not compile with another type.
TEST_F(WatchTest, ATopicTellsItsWatchesInTheOrderOfMaking)
{
    const auto make = [](auto callable) { return Watch::ZOLLanguage(std::move(callable)); };
    tryTopic(key::ZOLLanguage, mock::text("de"), "de", make);
    tryTopic(key::BackgroundVolume, mock::integer(-4), "-4",
             [](auto told) { return Watch::BackgroundVolume(std::move(told)); });
    tryTopic(key::ZOLActivated, mock::boolean(2), "false",
             [](auto told) { return Watch::ZOLActivated(std::move(told)); });
    EXPECT_FALSE(make(std::function<void(std::string)>()));
}

TEST_F(WatchTest, CallablesEndAndMakeWatchesOfTheirOwnTopicAndOfOthers)
{
    Watch before = language("before"), next, made, last;
    std::optional<Watch> own, other = Watch::OSDCountry(noting("other"));
    own = Watch::ZOLLanguage([&, state = std::make_unique<std::string>("own")](std::string) {  // cannot be copied
        before.end(), own.reset(), next.end(), other.reset();
        made = language("replaced");
        made = language("made");
        mock::note(*state);  // is still there
    });
    next = language("next");
    last = Watch::ZOLLanguage([&](const std::string& value) {
        mock::note("last " + value);
        value == "2" ? made.end(), last.end() : void();
    });
    fire("1");
    told({"before 1", "own", "last 1"});
    EXPECT_EQ(0, mock::fire(key::OSDCountry, mock::text("x")));
    fire("2");
    told({"last 2"});
}

// Whoever ends a watch may free what its callable uses, also when the topic has other watches and stays subscribed.
TEST_F(WatchTest, AnEndOnAnotherThreadReturnsAfterTheCallable)
{
    const Gate running;
    auto used = std::make_unique<bool>(false);
    Watch watch = Watch::ZOLLanguage([&running, &ended = *used](const std::string&) {
        running.open();
        giveWay();
        ended = true;
    });
    const Watch other = language("other");
    const auto delivery = std::async(std::launch::async, fire, "1");
    running.pass();
    watch.end();
    EXPECT_TRUE(*used);
    used.reset();
}

TEST_F(WatchTest, AWatchThatIsMadeWhileTheLastOnesEndMissesNothing)
{
    const Gate running;
    Watch other = language("other"), made;
    Watch own = Watch::ZOLLanguage([&](const std::string&) {
        own.end();
        running.open();
        giveWay();  // to the thread that ends the other
        made = language("made");
    });
    const auto delivery = std::async(std::launch::async, fire, "1");
    running.pass();
    other.end();
    EXPECT_EQ(1, fire("2"));
    told({"other 1", "made 2"});
}

TEST_F(WatchTest, OthersMayComeWhileTheLastOneEnds)
{
    Watch last = language("last"), made;
    std::vector<std::future<void>> others;
    mock::setHook([&](const std::string& event) {
        if (event.find("UnregisterCallback: \"Start\"") != std::string::npos && others.empty()) {
            others.push_back(std::async(std::launch::async, [&made] { made = language("made"); }));
            others.push_back(std::async(std::launch::async, [] { fire("0"); }));
            giveWay();
        }
    });
    last.end();
    mock::setHook(nullptr);
    others.clear();
    mock::takeEvents();
    EXPECT_EQ(1, fire("1"));
    told({"made 1"});
}

TEST_F(WatchTest, ACallableThatThrowsOrEndsItsThreadHoldsNothingUp)
{
    const Watch thrower = Watch::ZOLLanguage([](const std::string&) { throw std::string("from a callable"); });
    Watch ender = Watch::ZOLLanguage([](const std::string& value) { value == "2" ? pthread_exit(nullptr) : void(); });
    const Watch third = language("third");
    fire("1");
    EXPECT_THAT(mock::Locked()->events.back(), testing::HasSubstr("exception in cb"));
    std::thread([] { fire("2"); }).join();
    ender.end();
    fire("3");
    told({"third 1", "third 3"});
}

// Several threads make the topic's first watch, move it and end the last one, again and again.
TEST_F(WatchTest, WatchesComeMoveAndGoWhileEventsCome)
{
    const auto use = [] {
        for (int round = 0; round < 200; ++round) {
            std::atomic<int> calls{0};
            std::vector<Watch> watches;
            for (int made = 0; made < 3; ++made) {  // the vector moves them as it grows
                watches.push_back(Watch::ZOLLanguage([&calls](const std::string&) { ++calls; }));
            }
            EXPECT_EQ(1, fire("x"));
            EXPECT_LE(3, calls);
        }
    };
    const std::future<void> second = std::async(std::launch::async, use), third = std::async(std::launch::async, use);
    use();
}

// What a plugin leaves behind would be called by the next event, or keep it from being unloaded. This program does not
// watch the plugin's topic, or its symbols would stand in for the plugin's.
TEST_F(WatchTest, APluginThatEndedItsWatchesIsUnloaded)
{
    void* const plugin = dlopen(WATCH_PLUGIN, RTLD_NOW);
    ASSERT_NE(nullptr, plugin) << dlerror();
    const auto follow = reinterpret_cast<void (*)(void (*)(const char*))>(dlsym(plugin, "follow"));
    follow([](const char* value) { mock::note(value); });
    EXPECT_EQ(1, mock::fire(key::WebAppInstall, mock::text("1")));
    told({"1"});
    follow(nullptr);
    dlclose(plugin);
    EXPECT_EQ(nullptr, dlopen(WATCH_PLUGIN, RTLD_NOW | RTLD_NOLOAD));
    EXPECT_EQ(0, mock::fire(key::WebAppInstall, mock::text("2")));
}

}  // namespace
