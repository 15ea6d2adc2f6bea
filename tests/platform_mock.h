// The platform's store and log for tests: vconf_* and dlog_print are defined in the test program, which exports them,
// so that the library, as it is built, calls these instead of the desk platform. No write fires a change of its own
// accord. Any thread may call everything here. No lock of the mock is held while the hook or a handler runs.
#ifndef ZOL_TESTS_PLATFORM_MOCK_H
#define ZOL_TESTS_PLATFORM_MOCK_H

#include <dlog.h>
#include <gtest/gtest.h>
#include <vconf.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace mock {

// What the library did, in order, calls of the store and log lines (without their numbers) in one sequence:
//   vconf_get_str db/key    vconf_set_int db/key=5    vconf_notify_key_changed db/key
//   ZOLSystemDataClass.cpp: getString: DLOG_ERROR "vconf_get_str is failed"
struct Events : std::vector<std::string> {
    using vector::vector;
};
inline std::string line(const std::string& file, const std::string& function, const std::string& message)
{
    return file + ": " + function + ": DLOG_ERROR \"" + message + "\"\n";
}

inline Events operator+(Events first, const Events& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The number of a boolean may be any. With std::monostate the read of a number succeeds and writes nothing, and that of
// a text finds none.
using Value = std::variant<std::monostate, int, std::string>;

struct Subscription {
    std::string key;
    vconf_callback_fn handler = nullptr;
    void* userData = nullptr;
};

struct State {
    std::map<std::string, Value> store;
    std::map<std::string, int> refused;  // functions whose next call fails, and what they return
    Events events;
    std::map<std::string, Subscription> subscriptions;  // by their keys
    Subscription attempted;                             // the latest, accepted or not
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
inline void refuse(const std::string& function, int result = -1) { Locked()->refused[function] = result; }
inline void put(const std::string& key, const Value& value) { Locked()->store[key] = value; }
inline Subscription attempted() { return Locked()->attempted; }
inline Events takeEvents() { return std::exchange(Locked()->events, {}); }
inline void expectEvents(const Events& expected, int line = __builtin_LINE())
{
    EXPECT_EQ(expected, takeEvents()) << "in line " << line;
}

// What the callbacks noted since the events were last taken.
inline Events received()
{
    Events all = takeEvents(), noted;
    std::copy_if(all.begin(), all.end(), std::back_inserter(noted), [](const std::string& event) {
        return event.find(".cpp: ") == std::string::npos && event.find("vconf_") != 0;
    });
    return noted;
}

// Does something at the next event of that kind.
inline void onEvent(const std::string& event, const std::function<void()>& act)
{
    setHook([=](const std::string& each) {
        if (each == event) {
            setHook(nullptr);
            act();
        }
    });
}

inline thread_local keynode_t* record = nullptr;  // of the delivery that runs
inline void deliver(const Subscription& to, const Value& value)
{
    const int* const number = std::get_if<int>(&value);
    const std::string* const text = std::get_if<std::string>(&value);
    keynode_t node{to.key.c_str(), -1, {}};  // the type is not to be looked at
    node.value = {number == nullptr ? 0 : *number, text == nullptr ? nullptr : text->c_str()};
    record = &node;
    to.handler(&node, to.userData);
}

// Delivers to the subscription of the key, and returns how many there are.
inline int fire(const std::string& key, const Value& value)
{
    const auto subscriptions = (Inside(), Locked()->subscriptions);
    const auto found = subscriptions.find(key);
    if (found == subscriptions.end()) {
        return 0;
    }
    deliver(found->second, value);
    return 1;
}

// ---- the platform's functions ---------------------------------------------------------------------------------------

// Records an event. Returns 0, or the result of a call that is refused.
inline int note(const std::string& event)
{
    Locked()->events.push_back(event);
    if (const auto hook = Locked()->hook) {
        hook(event);
    }
    const auto refusal = Locked()->refused.extract(event.substr(0, event.find(' ')));
    return refusal ? refusal.mapped() : 0;
}

inline std::pair<int, Value> get(const std::string& function, const char* key)
{
    const int refusal = note(function + " " + key);
    const Locked locked;
    const auto found = locked->store.find(key);
    return found == locked->store.end() ? std::pair(-1, Value()) : std::pair(refusal, found->second);
}

inline int getNumber(const char* function, const char* key, int* number)
{
    const Inside here;
    const auto [refusal, value] = get(function, key);
    if (refusal != 0) {
        *number = 1;  // which is not to be looked at
    } else if (const int* stored = std::get_if<int>(&value)) {
        *number = *stored;
    }
    return refusal;
}

// Writes the text or, without one, the number.
inline int set(const char* function, const char* key, int number, const char* text = nullptr)
{
    const Inside here;
    const std::string value = text == nullptr ? std::to_string(number) : text;
    const int refusal = note(std::string(function) + " " + key + "=" + value);
    if (refusal == 0) {
        put(key, text == nullptr ? Value(number) : value);
    }
    return refusal;
}

}  // namespace mock

char* vconf_get_str(const char* key)
{
    const mock::Inside here;
    const auto [refusal, value] = mock::get(__func__, key);
    const std::string* const text = std::get_if<std::string>(&value);
    return refusal == 0 && text != nullptr ? strdup(text->c_str()) : nullptr;
}
int vconf_set_str(const char* key, const char* value) { return mock::set(__func__, key, 0, value); }
int vconf_get_int(const char* key, int* value) { return mock::getNumber(__func__, key, value); }
int vconf_set_int(const char* key, int value) { return mock::set(__func__, key, value); }
int vconf_get_bool(const char* key, int* value) { return mock::getNumber(__func__, key, value); }
int vconf_set_bool(const char* key, int value) { return mock::set(__func__, key, value); }

int vconf_notify_key_changed(const char* key, vconf_callback_fn handler, void* user_data)
{
    const mock::Inside here;
    const mock::Subscription attempted = {key, handler, user_data};
    mock::Locked()->attempted = attempted;
    const int refusal = mock::note(std::string(__func__) + " " + key);
    return refusal == 0 && mock::Locked()->subscriptions.emplace(key, attempted).second ? 0 : -1;
}

int vconf_ignore_key_changed(const char* key, vconf_callback_fn handler)
{
    const mock::Inside here;
    EXPECT_EQ(handler, mock::attempted().handler);
    const int refusal = mock::note(std::string(__func__) + " " + key);
    return refusal == 0 && mock::Locked()->subscriptions.erase(key) == 1 ? 0 : -1;
}

// Compares the priority and the tag, and takes the number out of the line.
int dlog_print(log_priority priority, const char* tag, const char* format, ...)
{
    const mock::Inside here;
    char* text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int size = vasprintf(&text, format, arguments);
    va_end(arguments);
    std::string line(text, static_cast<std::size_t>(size));
    std::free(text);
    EXPECT_TRUE(priority == 6 && std::strcmp(tag, "libZOL") == 0) << line;
    const std::size_t number = line.find('['), message = line.find("]\t ", number);
    EXPECT_GT(std::stoi(line.substr(number + 1)), 0) << line;
    line.replace(number, message + 3 - number, ": ");
    return mock::note(line);
}

#endif
