// Watches over the platform mock. Each test fails, hangs or is reported by a sanitizer when the protection that it is
// about is taken away.

#include <dlfcn.h>
#include <gmock/gmock.h>

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
    return [=](const auto& told) { mock::note((std::ostringstream() << std::boolalpha << name << ' ' << told).str()); };
}
Watch language(const std::string& name) { return Watch::ZOLLanguage(noting(name)); }
int fire(const std::string& value) { return mock::fire(key::ZOLLanguage, value); }
void giveWay() { std::this_thread::sleep_for(std::chrono::milliseconds(10)); }

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
    const auto throwing = [note = noting("2")](const auto& told) { note(told), throw 2; };
    Watch watches[] = {make(noting("1")), make(throwing), make(noting("3"))};
    EXPECT_EQ(1, mock::fire(path, value));
    EXPECT_THAT(mock::Locked()->events, testing::Contains(testing::HasSubstr("exception in cb")));
    watches[0].end();
    watches[1] = std::move(watches[2]);
    EXPECT_EQ(1, mock::fire(path, value));
    EXPECT_EQ(Events({"1 " + text, "2 " + text, "3 " + text, "3 " + text}), mock::received());
    EXPECT_TRUE(watches[1]);
    watches[1].end();
    EXPECT_FALSE(watches[1]);
    EXPECT_EQ(0, mock::fire(path, value));
}

// The other topics' functions come from the same macro, which does not compile with a wrong type.
TEST_F(WatchTest, ATopicTellsItsWatchesInTheOrderOfMaking)
{
    tryTopic(key::ZOLLanguage, "de", "de", [](auto call) { return Watch::ZOLLanguage(call); });
    tryTopic(key::BackgroundVolume, -4, "-4", [](auto call) { return Watch::BackgroundVolume(call); });
    tryTopic(key::ZOLActivated, 2, "false", [](auto call) { return Watch::ZOLActivated(call); });
    EXPECT_FALSE(Watch::ZOLLanguage(std::function<void(std::string)>()));
    struct Resettable {  // can be assigned null, but not compared with it
        Resettable& operator=(std::nullptr_t) { return *this; }
        void operator()(const std::string& /*value*/) {}
    };
    EXPECT_TRUE(Watch::ZOLLanguage(Resettable()));
}

TEST_F(WatchTest, CallablesEndAndMakeWatchesOfTheirOwnTopicAndOfOthers)
{
    Watch before = language("before"), next, made, last;
    std::optional<Watch> own, other = Watch::OSDCountry(noting("other"));
    own = Watch::ZOLLanguage([&, held = language("held")](std::string) {  // cannot be copied
        before.end(), own.reset(), next.end(), other.reset();
        made = language("replaced");
        made = language("made");
        mock::note(held ? "own" : "destroyed while it runs");
    });
    next = Watch::ZOLLanguage([held = language("held by the next")](std::string) {});
    last = Watch::ZOLLanguage([&](const std::string& value) {
        mock::note("last " + value);
        value == "2" ? made.end(), last.end() : void();
    });
    fire("1");
    EXPECT_EQ(Events({"before 1", "held 1", "own", "last 1"}), mock::received());
    EXPECT_EQ(0, mock::fire(key::OSDCountry, "x"));
    fire("2");
    EXPECT_EQ(Events({"last 2"}), mock::received());
}

// Whoever ends a watch may free what its callable uses, also when the topic has other watches and stays subscribed.
TEST_F(WatchTest, AnEndOnAnotherThreadReturnsAfterTheCallable)
{
    const Gate running, ended;
    const auto returned = std::make_shared<bool>(false);
    Watch watch = Watch::ZOLLanguage([&running, returned](const std::string&) {
        running.open();
        giveWay();
        *returned = true;
    });
    const Watch other = Watch::ZOLLanguage([&ended](const std::string&) { ended.pass(); });
    const auto delivery = std::async(std::launch::async, fire, "1");
    running.pass();
    watch.end();
    ended.open();
    EXPECT_TRUE(*returned);
    EXPECT_EQ(1, returned.use_count()) << "the callable is not destroyed";
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
    EXPECT_EQ(Events({"other 1", "made 2"}), mock::received());
}

TEST_F(WatchTest, OthersMayComeWhileTheLastOnesEnd)
{
    const Gate running;
    const auto run = [&running](const std::string&) { running.open(), giveWay(); };
    Watch made, last = language("last"), lastToRun = Watch::ZOLLanguage(run);
    std::thread make, deliver;
    mock::onEvent("VconfCallbackGenerator.cpp: UnregisterCallback: \"Start\"\n", [&] {
        make = std::thread([&made] { made = language("made"); });
        deliver = std::thread(fire, "0");
        giveWay();
    });
    std::thread delivery(fire, "0");
    running.pass();
    std::thread end(&Watch::end, &last);
    lastToRun.end();
    delivery.join(), end.join(), make.join(), deliver.join();
    mock::takeEvents();
    EXPECT_EQ(1, fire("1"));
    EXPECT_EQ(Events({"made 1"}), mock::received());
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

// What a plugin leaves behind would be called by the next event, or keep it from being unloaded.
TEST_F(WatchTest, APluginThatEndedItsWatchesIsUnloaded)
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
