#include "platform_mock.h"

#include <dlog.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>

namespace mock {
namespace {

constexpr char kFrame[] = "%s: %s[%d]\t ";

struct State {
    struct Calls {
        int count = 0;
        int refusedOne = 0;
        bool allRefused = false;
    };
    std::map<std::string, Value> store;
    std::map<std::string, Calls> calls;  // by function
    std::vector<std::string> events;
    std::vector<Line> lines;
    std::vector<Subscription> subscriptions;
    Hooks hooks;
};

std::mutex mutex;

// The state for as long as the expression or the scope.
class Locked {
public:
    State* operator->() const { return &state_; }
    State& operator*() const { return state_; }

private:
    static State& theState()
    {
        static auto& state = *new State;  // never destroyed: the library may log until the very end of the process
        return state;
    }
    std::lock_guard<std::mutex> guard_{mutex};
    State& state_ = theState();
};

// Records a call of the store, and tells whether it may go on.
bool arrive(const char* function, const std::string& argument)
{
    const Locked state;
    state->events.push_back(std::string(function) + " " + argument);
    State::Calls& calls = state->calls[function];
    return ++calls.count != calls.refusedOne && !calls.allRefused;
}

bool find(const char* function, const char* key, int type, Value& value)
{
    const bool accepted = arrive(function, key);
    const Locked state;
    const auto found = state->store.find(key);
    return accepted && found != state->store.end() && (value = found->second).type == type;
}

int getNumber(const char* function, const char* key, int type, int* number)
{
    Value value{type};
    const bool found = find(function, key, type, value);
    *number = found ? value.number : 1;
    return found ? 0 : -1;
}

int set(const char* function, const char* key, const Value& value)
{
    const bool isText = value.type == VCONF_TYPE_STRING;
    if (!arrive(function, std::string(key) + "=" + (isText ? value.text : std::to_string(value.number)))) {
        return -1;
    }
    put(key, value);
    return 0;
}

}  // namespace

void reset() { *Locked() = State(); }
void setHooks(Hooks hooks) { Locked()->hooks = std::move(hooks); }
void put(const std::string& key, const Value& value) { Locked()->store.insert_or_assign(key, value); }
std::map<std::string, Value> store() { return Locked()->store; }
void refuse(const std::string& function, bool on) { Locked()->calls[function].allRefused = on; }
void refuseNth(const std::string& function, int nth)
{
    const Locked state;
    state->calls[function].refusedOne = state->calls[function].count + nth;
}
std::vector<std::string> takeEvents() { return std::exchange(Locked()->events, {}); }
std::vector<Line> takeLines() { return std::exchange(Locked()->lines, {}); }
int count(const std::string& function) { return Locked()->calls[function].count; }
std::vector<Subscription> subscriptions() { return Locked()->subscriptions; }

int fire(keynode_t node)
{
    int called = 0;
    for (const Subscription& each : subscriptions()) {
        if (each.key == node.keyname) {
            each.handler(&node, each.userData);
            ++called;
        }
    }
    return called;
}

int fire(const std::string& key)
{
    const Value value = store().at(key);
    keynode_t node{};
    node.keyname = key.c_str();
    node.type = value.type;
    if (value.type == VCONF_TYPE_STRING) {
        node.value.s = value.text.c_str();
    } else {
        node.value.i = value.number;
    }
    return fire(node);
}

}  // namespace mock

using namespace mock;

char* vconf_get_str(const char* key)
{
    Value value{};
    return find(__func__, key, VCONF_TYPE_STRING, value) ? strdup(value.text.c_str()) : nullptr;
}
int vconf_set_str(const char* key, const char* value) { return set(__func__, key, text(value)); }
int vconf_get_int(const char* key, int* value) { return getNumber(__func__, key, VCONF_TYPE_INT, value); }
int vconf_set_int(const char* key, int value) { return set(__func__, key, integer(value)); }
int vconf_get_bool(const char* key, int* value) { return getNumber(__func__, key, VCONF_TYPE_BOOL, value); }
int vconf_set_bool(const char* key, int value) { return set(__func__, key, boolean(value)); }

int vconf_notify_key_changed(const char* key, vconf_callback_fn handler, void* user_data)
{
    const bool accepted = arrive(__func__, key);
    if (const auto hook = Locked()->hooks.notify) {
        hook(key);
    }
    if (accepted) {
        Locked()->subscriptions.push_back({key, handler, user_data});
    }
    return accepted ? 0 : -1;
}

int vconf_ignore_key_changed(const char* key, vconf_callback_fn handler)
{
    const bool accepted = arrive(__func__, key);
    if (const auto hook = Locked()->hooks.ignore) {
        hook(key);
    }
    const Locked state;
    auto& all = state->subscriptions;
    const auto found = std::find_if(all.begin(), all.end(),
                                    [=](const auto& each) { return each.key == key && each.handler == handler; });
    if (!accepted || found == all.end()) {
        return -1;
    }
    all.erase(found);
    return 0;
}

int dlog_print(log_priority priority, const char* tag, const char* format, ...)
{
    Line line;
    line.format = format;
    EXPECT_EQ(6, static_cast<int>(priority)) << format;
    EXPECT_STREQ("libZOL", tag) << format;
    if (line.format.rfind(kFrame, 0) != 0 || line.format.back() != '\n') {
        ADD_FAILURE() << "a line without the frame: " << format;
        return -1;
    }
    va_list arguments;
    va_start(arguments, format);
    line.file = va_arg(arguments, const char*);
    line.function = va_arg(arguments, const char*);
    line.number = va_arg(arguments, int);
    va_list rest;
    va_copy(rest, arguments);
    const char* message = format + std::strlen(kFrame);
    line.message.resize(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, message, arguments)) + 1);
    (void)std::vsnprintf(line.message.data(), line.message.size(), message, rest);
    va_end(rest);
    va_end(arguments);
    line.message.resize(line.message.size() - 2);  // the newline and the NUL
    EXPECT_GT(line.number, 0) << format;
    {
        const Locked state;
        state->events.push_back(line.function + ": " + line.message);
        state->lines.push_back(line);
    }
    if (const auto hook = Locked()->hooks.line) {
        hook(line);
    }
    return 0;
}
