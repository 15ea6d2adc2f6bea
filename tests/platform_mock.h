// The platform's store and log for tests: vconf_* and dlog_print are defined in the test program, which exports them,
// so that the library, as it is built, calls these instead of the stand-ins. No write fires a change of its own accord.
// Any thread may call everything here. No lock of the mock is held while the hook or a handler runs.
#ifndef ZOL_TESTS_PLATFORM_MOCK_H
#define ZOL_TESTS_PLATFORM_MOCK_H

#include <dlog.h>
#include <gtest/gtest.h>
#include <vconf.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace mock {

// What the library did, in order, calls of the store and log lines (without their numbers) in one sequence:
//   vconf_get_str db/key    vconf_set_int db/key=5    vconf_notify_key_changed db/key
//   ZOLSystemDataClass.cpp: getString: DLOG_ERROR "vconf_get_str is failed"
using Events = std::vector<std::string>;
inline std::string line(const std::string& file, const std::string& function, const std::string& message)
{
    return file + ": " + function + ": DLOG_ERROR \"" + message + "\"";
}

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
    vconf_callback_fn handler = nullptr;
    void* userData = nullptr;
};

struct State {
    std::map<std::string, Value> store;
    std::set<std::string> refused;  // the next event that begins with one of these is refused
    int refusal = -1;               // what reads and writes that are refused return
    bool writesNumbers = true;      // to the output of a read that is accepted
    Events events;
    std::vector<Subscription> subscriptions;
    Subscription attempted;  // the latest, accepted or not
    // Is called on the thread of each event, before a call of the store takes effect or is refused.
    std::function<void(const std::string& event)> hook;
};

// Never destroyed: the library may log until the very end of the process.
inline std::mutex& mutex = *new std::mutex;
inline State& state = *new State;

// Above 0 in a thread that runs the mock's own code. Who makes the library's allocations fail spares those of the mock.
inline thread_local int inside = 0;
struct Inside {
    Inside() { ++inside; }
    ~Inside() { --inside; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
};

// The state under its lock, for as long as the expression or the scope.
struct Locked {
    State* operator->() const { return &state; }
    std::lock_guard<std::mutex> guard{mutex};
};

inline void reset() { *Locked().operator->() = State(); }
inline void setHook(std::function<void(const std::string&)> hook) { Locked()->hook = std::move(hook); }
inline void refuse(const std::string& event) { Locked()->refused.insert(event); }
inline void put(const std::string& key, const Value& value) { Locked()->store.insert_or_assign(key, value); }
inline void note(const std::string& event) { Locked()->events.push_back(event); }
inline Events takeEvents() { return std::exchange(Locked()->events, {}); }
inline void expectEvents(const Events& expected, int line = __builtin_LINE())
{
    EXPECT_EQ(expected, takeEvents()) << "in line " << line;
}

inline void deliver(const Subscription& to, const Value& value)
{
    const char* text = value.type == VCONF_TYPE_STRING ? value.text.c_str() : nullptr;
    keynode_t node{to.key.c_str(), -1, {value.number, text}};  // the type is not to be looked at
    to.handler(&node, to.userData);
}

// Delivers to all that are subscribed to the key, and returns how many those are.
inline int fire(const std::string& key, const Value& value)
{
    int called = 0;
    const auto subscriptions = (Inside(), Locked()->subscriptions);
    for (const Subscription& each : subscriptions) {
        if (each.key == key) {
            deliver(each, value);
            ++called;
        }
    }
    return called;
}

// ---- the platform's functions ---------------------------------------------------------------------------------------

// Records a call, and tells whether it may go on.
inline bool happen(const std::string& event)
{
    note(event);
    if (const auto hook = Locked()->hook) {
        hook(event);
    }
    const Locked locked;
    auto& refused = locked->refused;
    const auto found = std::find_if(refused.begin(), refused.end(), [&event](const std::string& each) {
        return event.compare(0, each.size(), each) == 0;
    });
    if (found == refused.end()) {
        return true;
    }
    refused.erase(found);
    return false;
}

inline std::optional<Value> get(const std::string& function, const char* key, int type)
{
    const bool accepted = happen(function + " " + key);
    const Locked locked;
    const auto found = locked->store.find(key);
    const bool known = found != locked->store.end() && found->second.type == type;
    return accepted && known ? std::optional(found->second) : std::nullopt;
}

// A refused one still writes a 1 to its output.
inline int getNumber(const char* function, const char* key, int type, int* number)
{
    const Inside here;
    const auto value = get(function, key, type);
    if (Locked()->writesNumbers) {
        *number = value ? value->number : 1;
    }
    return value ? 0 : Locked()->refusal;
}

inline int set(const char* function, const char* key, const Value& value)
{
    const bool isText = value.type == VCONF_TYPE_STRING;
    if (!happen(std::string(function) + " " + key + "=" + (isText ? value.text : std::to_string(value.number)))) {
        return Locked()->refusal;
    }
    put(key, value);
    return 0;
}

inline int setNumber(const char* function, const char* key, int type, int number)
{
    const Inside here;
    return set(function, key, {type, number});
}

}  // namespace mock

char* vconf_get_str(const char* key)
{
    const mock::Inside here;
    const auto value = mock::get(__func__, key, VCONF_TYPE_STRING);
    return value ? strdup(value->text.c_str()) : nullptr;
}
int vconf_set_str(const char* key, const char* value)
{
    const mock::Inside here;
    return mock::set(__func__, key, mock::text(value));
}
int vconf_get_int(const char* key, int* value) { return mock::getNumber(__func__, key, VCONF_TYPE_INT, value); }
int vconf_set_int(const char* key, int value) { return mock::setNumber(__func__, key, VCONF_TYPE_INT, value); }
int vconf_get_bool(const char* key, int* value) { return mock::getNumber(__func__, key, VCONF_TYPE_BOOL, value); }
int vconf_set_bool(const char* key, int value) { return mock::setNumber(__func__, key, VCONF_TYPE_BOOL, value); }

int vconf_notify_key_changed(const char* key, vconf_callback_fn handler, void* user_data)
{
    const mock::Inside here;
    const mock::Subscription attempted = {key, handler, user_data};
    mock::Locked()->attempted = attempted;
    const bool accepted = mock::happen(std::string(__func__) + " " + key);
    if (accepted) {
        mock::Locked()->subscriptions.push_back(attempted);
    }
    return accepted ? 0 : -1;
}

int vconf_ignore_key_changed(const char* key, vconf_callback_fn handler)
{
    const mock::Inside here;
    const bool accepted = mock::happen(std::string(__func__) + " " + key);
    const mock::Locked locked;
    auto& all = locked->subscriptions;
    const auto found = std::find_if(all.begin(), all.end(),
                                    [=](const auto& each) { return each.key == key && each.handler == handler; });
    if (!accepted || found == all.end()) {
        return -1;
    }
    all.erase(found);
    return 0;
}

// Checks the priority, the tag and the frame of the line.
int dlog_print(log_priority priority, const char* tag, const char* format, ...)
{
    const mock::Inside here;
    EXPECT_EQ(6, static_cast<int>(priority)) << format;
    EXPECT_STREQ("libZOL", tag) << format;
    EXPECT_EQ(format, std::strstr(format, "%s: %s[%d]\t ")) << "a line without the frame";
    char* text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int size = vasprintf(&text, format, arguments);
    va_end(arguments);
    const std::string line(text, static_cast<std::size_t>(size));
    std::free(text);
    const std::size_t number = line.find('['), message = line.find("]\t "), last = line.size() - 1;
    EXPECT_GT(std::stoi(line.substr(number + 1)), 0) << line;
    EXPECT_EQ('\n', line[last]) << line;
    return mock::happen(line.substr(0, number) + ":" + line.substr(message + 2, last - message - 2)) ? 0 : -1;
}

#endif
