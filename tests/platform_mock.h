// The platform's store and log for tests: vconf_* and dlog_print are defined in the test program, which exports them,
// so that the library, as it is built, calls these instead of the stand-ins. No write fires a change of its own accord.
//
// Any thread may call everything here. No lock of the mock is held while a hook or a handler runs.
#ifndef ZOL_TESTS_PLATFORM_MOCK_H
#define ZOL_TESTS_PLATFORM_MOCK_H

#include <gtest/gtest.h>
#include <vconf.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace mock {

// One dlog_print. Its priority, its tag and the frame of its format are checked when it arrives.
struct Line {
    std::string format;          // as given
    std::string file, function;  // the frame's first two arguments
    int number = 0;              // and the third
    std::string message;         // formatted, from behind the frame up to the newline: DLOG_ERROR "value is empty"
};

struct Value {
    int type;
    int number = 0;  // of an integer or a boolean; a boolean may hold any
    std::string text{};
};
inline Value text(const std::string& value) { return {VCONF_TYPE_STRING, 0, value}; }
inline Value integer(int value) { return {VCONF_TYPE_INT, value}; }
inline Value boolean(int value) { return {VCONF_TYPE_BOOL, value}; }

struct Subscription {
    std::string key;
    vconf_callback_fn handler;
    void* userData;
};

// Called on the thread of the call, after the call is recorded and before it takes effect or is refused.
struct Hooks {
    std::function<void(const std::string&key)> notify, ignore;
    std::function<void(const Line& line)> line;
};

void reset();  // an empty store; no refusals, subscriptions, hooks or records
void setHooks(Hooks hooks);

// What the store holds. Neither is recorded.
void put(const std::string& key, const Value& value);
std::map<std::string, Value> store();

// Refuses the calls of a function, "vconf_get_str" for example: all from now on, or only the nth (1 is the next).
// A refused getter of a number still writes a 1 to its output.
void refuse(const std::string& function, bool on = true);
void refuseNth(const std::string& function, int nth);

// Everything the library did, in order, calls of the store and log lines in one sequence:
//   vconf_get_str db/key    vconf_set_int db/key=5    vconf_notify_key_changed db/key
//   getString: DLOG_ERROR "vconf_get_str is failed"
std::vector<std::string> takeEvents();   // and forgets them
std::vector<Line> takeLines();           // the log lines alone, more closely; and forgets them
int count(const std::string& function);  // calls since the reset, refused ones included
std::vector<Subscription> subscriptions();

// Calls the handlers subscribed to the key on this thread, and returns how many there were.
int fire(keynode_t node);
int fire(const std::string& key);  // with the stored value

class Test : public testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
};

}  // namespace mock

#endif
