// Each check runs in a process of its own, so that a call that never returns, or crashes, spoils that check only. The
// parent makes no call into the platform, which need not work in a child of a process that has used it.

#include "selftest.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ZOLTypedKeys.h"
#include "error.h"
#include "output.h"

namespace zolctl {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

milliseconds timeLimit;               // of each check
constexpr milliseconds kSlack{1000};  // what a check may take longer than what it waits for
constexpr milliseconds kQuiet{50};    // for how long a call that must not come is waited for

// What the platform does differently.
struct Broken : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void expect(const std::string& what, const std::string& expected, const std::string& came)
{
    if (came != expected) {
        throw Broken(what + ": expected " + expected + ", came " + came);
    }
}

void expectSuccess(const std::string& function, int result) { expect(function, "0", std::to_string(result)); }

void expectFailure(const std::string& function, int result)
{
    expect(function, "a failure", result == 0 ? "0" : "a failure");
}

// A child that answers requests. It is killed in the end, and when its parent dies, whatever it is doing.
class Process {
public:
    /// Answers a request, or throws what ask() is to throw.
    using Serve = std::function<std::string(const std::string& request)>;

    /// @param task  What is waited for, for the message when the answer does not come.
    Process(const char* task, milliseconds limit, const Serve& serve) : task_(task), limit_(limit)
    {
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0 || (id_ = fork()) < 0) {
            throw Failure(std::string("cannot start another process: ") + std::strerror(errno));
        }
        socket_ = ends[id_ == 0 ? 1 : 0];
        close(ends[id_ == 0 ? 0 : 1]);
        if (id_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            run(serve);
        }
    }
    ~Process()
    {
        close(socket_);
        kill(id_, SIGKILL);
        waitpid(id_, nullptr, 0);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    std::string ask(const std::string& request) const
    {
        (void)send(socket_, request.data(), request.size(), MSG_NOSIGNAL);
        pollfd waiting{socket_, POLLIN, 0};
        const bool inTime = poll(&waiting, 1, static_cast<int>(limit_.count())) > 0;
        std::string answer(kLongest, '\0');
        const ssize_t size = inTime ? recv(socket_, answer.data(), answer.size(), 0) : 0;
        expect(task_, "its end", size > 0 ? "its end" : inTime ? "the end of its process" : "none in time");
        answer.resize(static_cast<std::size_t>(size));
        return answer[0] == '+' ? answer.substr(1) : throw Broken(answer.substr(1));
    }

private:
    static constexpr std::size_t kLongest = 65536;  // of an answer; the rest is cut off

    [[noreturn]] void run(const Serve& serve) const noexcept
    {
        std::array<char, 16> request{};
        for (ssize_t size = 0; (size = recv(socket_, request.data(), request.size(), 0)) > 0;) {
            std::string answer;
            try {
                answer = "+" + serve({request.data(), static_cast<std::size_t>(size)});
            } catch (const std::exception& error) {
                answer = std::string("-") + error.what();
            }
            (void)send(socket_, answer.data(), std::min(answer.size(), kLongest), MSG_NOSIGNAL);
        }
        _exit(0);
    }

    const char* task_;
    milliseconds limit_;
    pid_t id_ = -1;
    int socket_ = -1;
};

// ---- keys and values: texts, those of a boolean 0 and 1, so that a message can show whatever comes ------------------

struct Type {
    const char* getter;
    int (*get)(const char* key, int* value);  // null for strings, as is the next one
    int (*set)(const char* key, int value);
    std::array<const char*, 4> samples;
};

constexpr Type kString{
    "vconf_get_str", nullptr, nullptr, {"first", "second", "second", "\"Gr\xc3\xbc\xc3\x9f\x65\" 100%s\n"}};
constexpr Type kInteger{
    "vconf_get_int", vconf_get_int, vconf_set_int, {"7", "-2147483648", "-2147483648", "2147483647"}};
constexpr Type kBoolean{"vconf_get_bool", vconf_get_bool, vconf_set_bool, {"1", "0", "0", "1"}};

struct Key {
    const Type* type = nullptr;
    std::string name;

    const char* id() const { return name.c_str(); }
};

const std::array<Key, 3> kScratchKeys{{{&kString, "memory/zolctl/selftest/text"},
                                       {&kInteger, "memory/zolctl/selftest/number"},
                                       {&kBoolean, "memory/zolctl/selftest/flag"}}};
const auto& [kText, kNumber, kFlag] = kScratchKeys;

std::optional<std::string> read(const Key& key)
{
    if (key.type == &kString) {
        const std::unique_ptr<char, decltype(&std::free)> text(vconf_get_str(key.id()), std::free);
        return text ? std::optional<std::string>(text.get()) : std::nullopt;
    }
    int number = 0;
    return key.type->get(key.id(), &number) == 0 ? std::optional(std::to_string(number)) : std::nullopt;
}

std::string shown(const Key& key) { return escaped(read(key).value_or("no value")); }

std::string shownByLibrary(const Key& key)
{
    std::string text = "no value";
    int number = 0;
    if (key.type == &kString) {
        getString(key.id(), text);
    } else if (key.type == &kBoolean) {
        text = getBool(key.id()) ? "1" : "0";
    } else if (getInt(key.id(), number)) {
        text = std::to_string(number);
    }
    return escaped(text);
}

int tryToWrite(const Key& key, const std::string& value)
{
    return key.type == &kString ? vconf_set_str(key.id(), value.c_str()) : key.type->set(key.id(), std::stoi(value));
}

void write(const Key& key, const std::string& value) { expectSuccess("writing " + key.name, tryToWrite(key, value)); }

void writeByLibrary(const Key& key, const std::string& value)
{
    const bool done = key.type == &kString    ? setString(key.id(), value)
                      : key.type == &kBoolean ? setBool(key.id(), value == "1")
                                              : setInt(key.id(), std::stoi(value));
    expect("writing " + key.name + " through the library", "success", done ? "success" : "a failure");
}

// A key that never had a value.
Key freshKey(const Type* type)
{
    return {type, "memory/zolctl/selftest/none-" + std::to_string(getpid()) + "-" +
                      std::to_string(std::chrono::system_clock::now().time_since_epoch().count())};
}

void append(std::string& list, const std::string& text) { list += (list.empty() ? "" : ", ") + text; }

// ---- subscriptions --------------------------------------------------------------------------------------------------

// A handler, what it was called with, and what it does in a call.
struct Subscription {
    /// What to do in a call; the result follows the value in the list of calls.
    using Act = std::string (*)(Subscription&);

    void begin(const Key& itsKey, vconf_callback_fn itsHandler, Act itsAct)
    {
        key = itsKey;
        handler = itsHandler;
        act = itsAct;
        deadline = Clock::now() + timeLimit;
        expectSuccess("vconf_notify_key_changed", vconf_notify_key_changed(key.id(), handler, this));
    }
    int tryToEnd() const { return vconf_ignore_key_changed(key.id(), handler); }
    void end() const { expectSuccess("vconf_ignore_key_changed", tryToEnd()); }

    void called(const keynode_t* node, const void* userData)
    {
        std::string call;
        if (userData != this) {
            call = "other user data";
        } else if (node == nullptr || node->keyname == nullptr) {
            call = "a null pointer";
        } else if (node->keyname != key.name) {
            call = std::string("the keyname ") + escaped(node->keyname);
        } else if (key.type != &kString) {
            call = std::to_string(node->value.i);
        } else {
            call = node->value.s == nullptr ? "a null pointer" : escaped(node->value.s);
        }
        call += act == nullptr ? "" : act(*this);
        change([&] { append(calls, call); });
    }

    /// Waits until they have come or the time is over, then a little for calls that must not come.
    void expectCalls(const std::string& expected)
    {
        waitUntil([&] { return calls == expected; });
        std::this_thread::sleep_for(kQuiet);
        change([&] {
            expect("calls of the handler", expected.empty() ? "none" : expected, calls.empty() ? "none" : calls);
        });
    }

    template <class Change>
    void change(Change make)
    {
        const std::lock_guard<std::mutex> guard(lock);
        make();
        changed.notify_all();
    }
    template <class Condition>
    bool waitUntil(Condition condition)
    {
        std::unique_lock<std::mutex> guard(lock);
        return changed.wait_until(guard, deadline, condition);
    }

    Key key;
    vconf_callback_fn handler = nullptr;
    Act act = nullptr;
    Clock::time_point deadline;

    std::mutex lock;
    std::condition_variable changed;
    std::string calls;
    bool isInHandler = false;
    bool isReleased = false;
};

// They stay as long as the process: a platform may go on calling after a subscription has ended.
std::array<Subscription, 2> subscriptions;

template <std::size_t number>
void handler(keynode_t* node, void* userData)
{
    subscriptions[number].called(node, userData);
}

template <std::size_t number = 0>
Subscription& subscribe(const Key& key, Subscription::Act act = nullptr)
{
    subscriptions[number].begin(key, handler<number>, act);
    return subscriptions[number];
}

// ---- the checks -----------------------------------------------------------------------------------------------------

void isReadAsWritten(const Key& key)
{
    for (const auto& byEitherWay : {write, writeByLibrary}) {
        for (const char* value : key.type->samples) {
            byEitherWay(key, value);
            expect(key.type->getter, escaped(value), shown(key));
            expect(key.name + " read through the library", escaped(value), shownByLibrary(key));
        }
    }
}

void cannotBeRead(const Key& key)
{
    const std::string getter = key.type->getter;
    expect(getter, "no value", shown(key));
    if (key.type != &kString) {
        int value = -77;
        (void)key.type->get(key.id(), &value);
        expect("the value after a failed " + getter, "-77", std::to_string(value));
    }
}

void noValueCannotBeRead(const Key& key) { cannotBeRead(freshKey(key.type)); }

void otherTypeCannotBeRead(const Key& key)
{
    write(kText, "5");
    write(kNumber, "1");
    write(kFlag, "1");
    for (const Key& other : kScratchKeys) {
        if (other.type != key.type) {
            cannotBeRead({key.type, other.name});
        }
    }
}

void writeReplacesType(const Key& key)
{
    for (const Type* type : {&kInteger, &kBoolean, &kString}) {
        write(key, "1");
        write({type, key.name}, "0");
        expect(type->getter, "0", shown({type, key.name}));
    }
    cannotBeRead({&kBoolean, key.name});
}

// Writes the scratch number or reads it. To be made before the check itself uses the platform.
struct OtherProcess : Process {
    OtherProcess() : Process("a call in another process", timeLimit, serve) {}
    static std::string serve(const std::string& request)
    {
        int value = 0;
        if (request == "read") {
            expectSuccess("vconf_get_int in another process", vconf_get_int(kNumber.id(), &value));
        } else {
            expectSuccess("vconf_set_int in another process", vconf_set_int(kNumber.id(), std::stoi(request)));
        }
        return std::to_string(value);
    }
};

void otherProcessReads(const Key& key)
{
    const OtherProcess other;
    for (const char* value : key.type->samples) {
        write(key, value);
        expect("vconf_get_int in another process", value, other.ask("read"));
    }
}

void isToldOfChanges(const Key& key)
{
    Subscription& subscription = subscribe(key);
    std::string expected;
    for (const char* value : key.type->samples) {
        write(key, value);
        append(expected, escaped(value));
    }
    subscription.expectCalls(expected);
    subscription.end();
}

void isToldOfOtherProcess(const Key& key)
{
    const OtherProcess other;
    Subscription& subscription = subscribe(key);
    other.ask("3");
    other.ask("4");
    subscription.expectCalls("3, 4");
}

void noValueCanBeSubscribed(const Key& key)
{
    Subscription& subscription = subscribe(freshKey(key.type));
    subscription.expectCalls("");
    subscription.end();
}

void endedSubscriptionIsSilent(const Key& key)
{
    Subscription& ended = subscribe<0>(key);
    Subscription& kept = subscribe<1>(key);
    write(key, "1");
    ended.expectCalls("1");
    ended.end();
    write(key, "2");
    kept.expectCalls("1, 2");
    ended.expectCalls("1");
}

void noSubscriptionCannotEnd(const Key& key)
{
    const Subscription& subscription = subscribe<0>(key);
    expectFailure("vconf_ignore_key_changed for another handler", vconf_ignore_key_changed(key.id(), handler<1>));
    subscription.end();
    expectFailure("vconf_ignore_key_changed for the second time", subscription.tryToEnd());
}

void handlerMayCall(const Key& key)
{
    Subscription& subscription = subscribe(key, [](Subscription& self) {
        const std::string text = shown(kText);
        const int result = tryToWrite(kFlag, "1");
        return " (reads " + text + ", writes with " + std::to_string(result) + ", unsubscribes with " +
               std::to_string(self.tryToEnd()) + ")";
    });
    write(kText, "seen");
    for (const char* value : {"1", "2"}) {
        write(key, value);
        subscription.expectCalls("1 (reads seen, writes with 0, unsubscribes with 0)");
    }
}

// The change is another process's: a platform may call the handlers from within the call that writes.
void endDoesNotWait(const Key& key)
{
    const OtherProcess other;
    Subscription& subscription = subscribe(key, [](Subscription& self) -> std::string {
        self.change([&] { self.isInHandler = true; });
        return self.waitUntil([&] { return self.isReleased; }) ? " (not waited for)" : " (waited for)";
    });
    other.ask("1");
    const bool isCalled = subscription.waitUntil([&] { return subscription.isInHandler; });
    expect("calls of the handler", "one", isCalled ? "one" : "none");
    subscription.end();
    subscription.change([&] { subscription.isReleased = true; });
    subscription.expectCalls("1 (not waited for)");
}

struct Check {
    const char* promise;
    void (*run)(const Key&);
    const Key& key;
};

constexpr std::array kChecks = {
    Check{"a string is read as it was written", isReadAsWritten, kText},
    Check{"an integer is read as it was written", isReadAsWritten, kNumber},
    Check{"a boolean is read as it was written", isReadAsWritten, kFlag},
    Check{"another process reads what was written", otherProcessReads, kNumber},
    Check{"no string is read where there is no value", noValueCannotBeRead, kText},
    Check{"no integer is read where there is no value", noValueCannotBeRead, kNumber},
    Check{"no boolean is read where there is no value", noValueCannotBeRead, kFlag},
    Check{"no string is read where there is an integer or a boolean", otherTypeCannotBeRead, kText},
    Check{"no integer is read where there is a string or a boolean", otherTypeCannotBeRead, kNumber},
    Check{"no boolean is read where there is a string or an integer", otherTypeCannotBeRead, kFlag},
    Check{"a write of another type replaces value and type", writeReplacesType, kText},
    Check{"a handler is called once for each change of a string, in order", isToldOfChanges, kText},
    Check{"a handler is called once for each change of an integer, in order", isToldOfChanges, kNumber},
    Check{"a handler is called once for each change of a boolean, in order", isToldOfChanges, kFlag},
    Check{"a handler is called for the changes by another process", isToldOfOtherProcess, kNumber},
    Check{"a key without a value can be subscribed to", noValueCanBeSubscribed, kText},
    Check{"no call comes for an ended subscription, and all for another of its key", endedSubscriptionIsSilent,
          kNumber},
    Check{"what is not subscribed cannot be unsubscribed", noSubscriptionCannotEnd, kText},
    Check{"a handler may read, write and unsubscribe itself", handlerMayCall, kNumber},
    Check{"unsubscribing does not wait for a handler that is running", endDoesNotWait, kNumber},
};

// ---- running them ---------------------------------------------------------------------------------------------------

// Reads the scratch keys and answers which of them hold nothing; later sets them back and answers what went wrong.
std::string serveScratchKeys(const std::string& request)
{
    static std::vector<std::pair<Key, std::string>> saved;
    std::string answer;
    if (request == "set back") {
        for (const auto& [key, value] : saved) {
            if (tryToWrite(key, value) != 0) {
                answer =
                    "the platform refused the last write to a key under memory/zolctl/selftest/; add -v to see why";
            }
        }
        return answer;
    }
    for (const Key& key : kScratchKeys) {
        // The platform has no call that removes a key, so one without a value gets a neutral one in the end.
        std::pair<Key, std::string> found{key, key.type == &kString ? "-" : "0"};
        bool isFound = false;
        for (const Type* type : {key.type, &kString, &kInteger, &kBoolean}) {  // which somebody else may have written
            const std::optional<std::string> value = isFound ? std::nullopt : read({type, key.name});
            if (value) {
                found = {{type, key.name}, *value};
                isFound = true;
            }
        }
        saved.push_back(found);
        if (!isFound) {
            append(answer, key.name);
        }
    }
    return answer;
}

sigset_t block(std::initializer_list<int> numbers)
{
    sigset_t signals{};
    sigemptyset(&signals);
    for (const int number : numbers) {
        sigaddset(&signals, number);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

}  // namespace

int selftest(double timeout)
{
    timeLimit = milliseconds(static_cast<int>(timeout * 1000));
    // They would end the tool before the keys are set back.
    const sigset_t ending = block({SIGINT, SIGTERM, SIGHUP});
    const sigset_t readerGone = block({SIGPIPE});
    const Process keys("", timeLimit + kSlack, serveScratchKeys);
    std::string left;
    try {
        left = keys.ask("save");
    } catch (const Broken&) {
        throw Failure("the platform does not return from a call that reads a scratch key");
    }
    const auto setBack = [&]() -> std::string {
        try {
            return keys.ask("set back");
        } catch (const Broken&) {
            return "the platform does not return from a call that sets back a scratch key";
        }
    };

    std::size_t made = 0;
    std::size_t failed = 0;
    bool interrupted = false;
    try {
        for (const Check& check : kChecks) {
            const timespec noTime{};
            if ((interrupted = sigtimedwait(&ending, nullptr, &noTime) > 0)) {
                break;
            }
            std::string line = std::string("ok   ") + check.promise;
            try {
                Process("a call into the platform", timeLimit + kSlack, [&](const std::string& /*request*/) {
                    check.run(check.key);
                    return "";
                }).ask("run");
            } catch (const Broken& broken) {
                line = std::string("FAIL ") + check.promise + " (" + broken.what() + ")";
                ++failed;
            }
            ++made;
            print(line + "\n");
        }
    } catch (...) {
        (void)setBack();
        sigprocmask(SIG_UNBLOCK, &readerGone, nullptr);  // which ends the tool here, as it ends other filters
        throw;
    }

    const std::string problem = setBack();
    if (problem.empty() && !left.empty()) {
        print("These keys had no value and keep a meaningless one until the machine restarts: " + left + "\n");
    }
    print(std::to_string(made - failed) + " of " + std::to_string(kChecks.size()) + " checks hold, " +
          std::to_string(failed) + " fail, " + std::to_string(kChecks.size() - made) + " not made\n");
    if (!problem.empty()) {
        printError(problem);
    }
    if (interrupted) {
        printError("interrupted");
    }
    return failed == 0 && made == kChecks.size() && problem.empty() ? 0 : kExitFailed;
}

}  // namespace zolctl
