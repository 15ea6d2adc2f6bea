// Each check runs in a process of its own, so that a call that never returns, or crashes, spoils that check only. The
// parent makes no call into the platform, which need not work in a child of a process that has used it.

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ZOLTypedKeys.h"
#include "commands.h"
#include "output.h"
#include "platform.h"
#include "settings.h"

namespace zolctl {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

milliseconds timeLimit;               // of each check
constexpr milliseconds kSlack{1000};  // what a check may take longer than what it waits for
constexpr milliseconds kQuiet{50};    // for how long a call that must not come is waited for

// Throws what the platform does differently.
void expect(const std::string& what, const std::string& expected, const std::string& came)
{
    if (came != expected) {
        throw Failure(what + ": expected " + expected + ", came " + came);
    }
}

void expectSuccess(const std::string& function, int result) { expect(function, "0", std::to_string(result)); }

// A child that answers requests. It is killed in the end, and when its parent dies, whatever it is doing.
class Process {
public:
    using Serve = std::function<std::string(const std::string& request)>;

    /// @param task  What a caller waits for.
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

    /// @throws Failure with what the child threw, or why no answer came.
    std::string ask(const std::string& request) const
    {
        (void)send(socket_, request.data(), request.size(), MSG_NOSIGNAL);
        pollfd waiting{socket_, POLLIN, 0};
        const bool inTime = poll(&waiting, 1, static_cast<int>(limit_.count())) > 0;
        std::string text(kLongest, '\0');
        const ssize_t size = inTime ? recv(socket_, text.data(), text.size(), 0) : 0;
        if (size <= 0) {
            throw Failure(task_ + ": expected its end, came " + (inTime ? "that of its process" : "none in time"));
        }
        text.resize(static_cast<std::size_t>(size));
        return text[0] == '+' ? text.substr(1) : throw Failure(text.substr(1));
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

    std::string task_;
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
    const Type* type;
    const char* name;
};

constexpr Key kText{&kString, "memory/zolctl/selftest/text"};
constexpr Key kNumber{&kInteger, "memory/zolctl/selftest/number"};
constexpr Key kFlag{&kBoolean, "memory/zolctl/selftest/flag"};
constexpr std::array<Key, 3> kScratchKeys{kText, kNumber, kFlag};
constexpr char kNeverWritten[] = "memory/zolctl/selftest/none";

std::optional<std::string> read(const Key& key)
{
    if (key.type == &kString) {
        const std::unique_ptr<char, decltype(&std::free)> text(vconf_get_str(key.name), std::free);
        return text ? std::optional<std::string>(text.get()) : std::nullopt;
    }
    int number = 0;
    return key.type->get(key.name, &number) == 0 ? std::optional(std::to_string(number)) : std::nullopt;
}

std::string shown(const Key& key) { return escaped(read(key).value_or("no value")); }

std::string shownByLibrary(const Key& key)
{
    if (key.type == &kBoolean) {
        return getBool(key.name) ? "1" : "0";
    }
    std::string text;
    int number = 0;
    const bool done = key.type == &kString ? getString(key.name, text) : getInt(key.name, number);
    return !done ? "no value" : key.type == &kString ? escaped(text) : std::to_string(number);
}

int tryToWrite(const Key& key, const std::string& value)
{
    return key.type == &kString ? vconf_set_str(key.name, value.c_str()) : key.type->set(key.name, std::stoi(value));
}

void write(const Key& key, const std::string& value)
{
    expectSuccess(std::string("writing ") + key.name, tryToWrite(key, value));
}

void writeByLibrary(const Key& key, const std::string& value)
{
    const bool done = key.type == &kString    ? setString(key.name, value)
                      : key.type == &kBoolean ? setBool(key.name, value == "1")
                                              : setInt(key.name, std::stoi(value));
    expect(std::string("writing ") + key.name + " through the library", "success", done ? "success" : "a failure");
}

void append(std::string& list, const std::string& text) { list += (list.empty() ? "" : ", ") + text; }

// ---- subscriptions --------------------------------------------------------------------------------------------------

auto deadline = Clock::time_point::min();  // of what a check waits for

template <class Condition>
bool waitUntil(Condition isMet)
{
    while (!isMet() && Clock::now() < deadline) {
        std::this_thread::sleep_for(milliseconds(1));
    }
    return isMet();
}

// A handler, what it was called with, and what it does in a call.
struct Subscription {
    void called(const keynode_t* node, const void* userData)
    {
        std::string call = userData != this                              ? "other user data"
                           : node == nullptr || node->keyname == nullptr ? "a null pointer"
                           : std::strcmp(node->keyname, key.name) != 0   ? "the keyname " + escaped(node->keyname)
                           : key.type != &kString                        ? std::to_string(node->value.i)
                           : node->value.s == nullptr                    ? "a null pointer"
                                                                         : escaped(node->value.s);
        call += act == nullptr ? "" : act(*this);
        const std::lock_guard<std::mutex> guard(lock);
        append(calls, call);
    }
    /// Waits until they have come or the time is over, then a little for calls that must not come.
    void expectCalls(const std::string& expected)
    {
        const auto came = [&] {
            const std::lock_guard<std::mutex> guard(lock);
            return calls.empty() ? "none" : calls;
        };
        waitUntil([&] { return came() == expected; });
        std::this_thread::sleep_for(kQuiet);
        expect("calls of the handler", expected, came());
    }
    int tryToEnd() const { return vconf_ignore_key_changed(key.name, handler); }
    void end() const { expectSuccess("vconf_ignore_key_changed", tryToEnd()); }

    Key key{};
    vconf_callback_fn handler = nullptr;
    std::string (*act)(const Subscription&) = nullptr;  // the result follows the value in the list of calls
    std::mutex lock;
    std::string calls;
};

// They stay as long as the process: a platform may go on calling after a subscription has ended.
std::array<Subscription, 2> subscriptions;

template <std::size_t number = 0>
Subscription& subscribe(const Key& key, std::string (*act)(const Subscription&) = nullptr)
{
    Subscription& self = subscriptions[number];
    self.key = key;
    self.act = act;
    self.handler = [](keynode_t* node, void* userData) { subscriptions[number].called(node, userData); };
    expectSuccess("vconf_notify_key_changed", vconf_notify_key_changed(key.name, self.handler, &self));
    return self;
}

// ---- the checks -----------------------------------------------------------------------------------------------------

void isReadAsWritten(const Key& key)
{
    for (const auto& byEitherWay : {write, writeByLibrary}) {
        for (const char* value : key.type->samples) {
            byEitherWay(key, value);
            expect(key.type->getter, escaped(value), shown(key));
            expect(std::string(key.name) + " read through the library", escaped(value), shownByLibrary(key));
        }
    }
}

void cannotBeRead(const Key& key)
{
    const std::string getter = key.type->getter;
    expect(getter, "no value", shown(key));
    if (key.type != &kString) {
        int value = -77;
        (void)key.type->get(key.name, &value);
        expect("the value after a failed " + getter, "-77", std::to_string(value));
    }
}

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

// Reads the scratch number, or writes the one that it is sent and answers the result. Is to be made before the check
// itself uses the platform.
struct OtherProcess : Process {
    OtherProcess() : Process("a call in another process", timeLimit, serve) {}
    static std::string serve(const std::string& request)
    {
        return request == "read" ? shown(kNumber) : std::to_string(tryToWrite(kNumber, request));
    }
    void write(const std::string& value) const { expect("vconf_set_int in another process", "0", ask(value)); }
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
    other.write("3");
    other.write("4");
    subscription.expectCalls("3, 4");
}

void noValueCanBeSubscribed(const Key& key)
{
    Subscription& subscription = subscribe(key);
    subscription.expectCalls("none");
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
    const auto tellOf = [](int result) { return result == 0 ? "0" : "a failure"; };
    const vconf_callback_fn other = [](keynode_t* /*node*/, void* /*userData*/) {};
    const Subscription& subscription = subscribe(key);
    expect("vconf_ignore_key_changed for another handler", "a failure",
           tellOf(vconf_ignore_key_changed(key.name, other)));
    subscription.end();
    expect("vconf_ignore_key_changed for the second time", "a failure", tellOf(subscription.tryToEnd()));
}

void handlerMayCall(const Key& key)
{
    Subscription& subscription = subscribe(key, [](const Subscription& self) {
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
    static std::atomic<bool> isInHandler{false};
    static std::atomic<bool> isReleased{false};
    const OtherProcess other;
    Subscription& subscription = subscribe(key, [](const Subscription& /*self*/) -> std::string {
        isInHandler = true;
        return waitUntil([] { return isReleased.load(); }) ? " (not waited for)" : " (waited for)";
    });
    other.write("1");
    expect("calls of the handler", "one", waitUntil([] { return isInHandler.load(); }) ? "one" : "none");
    subscription.end();
    isReleased = true;
    subscription.expectCalls("1 (not waited for)");
}

struct Check {
    const char* promise;
    void (*run)(const Key&);
    Key key;
};

constexpr std::array kChecks = {
    Check{"a string is read as it was written", isReadAsWritten, kText},
    Check{"an integer is read as it was written", isReadAsWritten, kNumber},
    Check{"a boolean is read as it was written", isReadAsWritten, kFlag},
    Check{"another process reads what was written", otherProcessReads, kNumber},
    Check{"no string is read where there is no value", cannotBeRead, {&kString, kNeverWritten}},
    Check{"no integer is read where there is no value", cannotBeRead, {&kInteger, kNeverWritten}},
    Check{"no boolean is read where there is no value", cannotBeRead, {&kBoolean, kNeverWritten}},
    Check{"no string is read where there is an integer or a boolean", otherTypeCannotBeRead, kText},
    Check{"no integer is read where there is a string or a boolean", otherTypeCannotBeRead, kNumber},
    Check{"no boolean is read where there is a string or an integer", otherTypeCannotBeRead, kFlag},
    Check{"a write of another type replaces value and type", writeReplacesType, kText},
    Check{"a handler is called once for each change of a string, in order", isToldOfChanges, kText},
    Check{"a handler is called once for each change of an integer, in order", isToldOfChanges, kNumber},
    Check{"a handler is called once for each change of a boolean, in order", isToldOfChanges, kFlag},
    Check{"a handler is called for the changes by another process", isToldOfOtherProcess, kNumber},
    Check{"a key without a value can be subscribed to", noValueCanBeSubscribed, {&kString, kNeverWritten}},
    Check{"no call comes for an ended subscription, and all for another of its key", endedSubscriptionIsSilent,
          kNumber},
    Check{"what is not subscribed cannot be unsubscribed", noSubscriptionCannotEnd, kText},
    Check{"a handler may read, write and unsubscribe itself", handlerMayCall, kNumber},
    Check{"unsubscribing does not wait for a handler that is running", endDoesNotWait, kNumber},
};

// ---- running them ---------------------------------------------------------------------------------------------------

// Reads the scratch keys and answers which of them hold nothing; later sets them back.
std::string serveScratchKeys(const std::string& request)
{
    static std::vector<std::pair<Key, std::string>> saved;
    if (request == "set back") {
        const auto isRefused = [](const auto& each) { return tryToWrite(each.first, each.second) != 0; };
        return std::count_if(saved.begin(), saved.end(), isRefused) == 0
                   ? ""
                   : throw Failure("the platform refused to set back a scratch key: " + platformReason());
    }
    std::string without;
    for (const Key& key : kScratchKeys) {
        std::optional<std::string> found;
        for (const Type* type : {key.type, &kString, &kInteger, &kBoolean}) {  // whatever somebody has left there
            if (!found && (found = read({type, key.name}))) {
                saved.push_back({{type, key.name}, *found});
            }
        }
        if (!found) {
            saved.emplace_back(key, key.type == &kString ? "-" : "0");  // the platform has no call that removes a key
            append(without, key.name);
        }
    }
    return without;
}

// What went wrong, if anything did.
std::string faultOf(const Process& process, const char* request)
{
    try {
        process.ask(request);
        return "";
    } catch (const Failure& failure) {
        return failure.what();
    }
}

}  // namespace

int selftest(double timeout)
{
    timeLimit = milliseconds(static_cast<int>(timeout * 1000));
    sigset_t held{};  // would end the tool before the keys are set back
    sigemptyset(&held);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        sigaddset(&held, number);
    }
    sigprocmask(SIG_BLOCK, &held, nullptr);
    const Process keys("a call that reads or sets back a scratch key", timeLimit + kSlack, serveScratchKeys);
    const std::string without = keys.ask("save");

    std::size_t made = 0;
    std::size_t failed = 0;
    std::string endedBy;
    try {
        for (const Check& check : kChecks) {
            const timespec noTime{};
            if (sigtimedwait(&held, nullptr, &noTime) > 0) {
                throw Failure("interrupted");
            }
            const Process process("a call into the platform", timeLimit + kSlack, [&](const std::string& /*request*/) {
                deadline = Clock::now() + timeLimit;
                check.run(check.key);
                return "";
            });
            const std::string fault = faultOf(process, "run");
            ++made;
            failed += fault.empty() ? 0 : 1;
            print(fault.empty() ? std::string("ok   ") + check.promise + "\n"
                                : std::string("FAIL ") + check.promise + " (" + fault + ")\n");
        }
    } catch (const Failure& failure) {
        endedBy = failure.what();
    }
    const std::string problem = faultOf(keys, "set back");
    sigprocmask(SIG_UNBLOCK, &held, nullptr);  // ends the tool if the reader of its output has gone

    if (problem.empty() && !without.empty()) {
        print("These keys had no value and keep a meaningless one until the machine restarts: " + without + "\n");
    }
    print(std::to_string(made - failed) + " of " + std::to_string(kChecks.size()) + " checks hold, " +
          std::to_string(failed) + " fail, " + std::to_string(kChecks.size() - made) + " not made\n");
    for (const std::string& message : {problem, endedBy}) {
        if (!message.empty()) {
            printError(message);
        }
    }
    return failed == 0 && problem.empty() && endedBy.empty() ? 0 : kExitFailed;
}

}  // namespace zolctl
