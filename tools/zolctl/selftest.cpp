// Each check runs in a process of its own, so that a call that hangs or crashes fails only its own check. The parent
// itself does not call the platform, because a platform may fail in a child of a process that has used it.

#include <poll.h>
#include <sys/mman.h>
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
constexpr milliseconds kSlack{1000};  // what a check may take in addition to its waiting
constexpr milliseconds kQuiet{50};    // how long a check waits for a call that must not come

// Long runs of one character are counted.
std::string shortened(const std::string& text)
{
    constexpr std::size_t kLongest = 20;
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find_first_not_of(text[at], at), text.size());
        const std::size_t run = end - at;
        const std::string counted = std::string(1, text[at]) + " (" + std::to_string(run) + " times)";
        result += run <= kLongest ? text.substr(at, run) : counted;
        at = end;
    }
    return result;
}

// Throws what the platform does differently.
void expect(const std::string& what, const std::string& expected, const std::string& got)
{
    if (got != expected) {
        throw Failure(what + ": expected " + shortened(expected) + ", got " + shortened(got));
    }
}

void expectSuccess(const std::string& function, int result) { expect(function, "0", std::to_string(result)); }

// ---- other processes ------------------------------------------------------------------------------------------------

// The call that a child is making, or null. It is shared with the children, so that the parent can name a call that
// does not return.
std::atomic<const char*>* runningCall = nullptr;

void shareRunningCall()
{
    void* const shared = mmap(nullptr, sizeof *runningCall, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        throw Failure(std::string("cannot share memory with other processes: ") + std::strerror(errno));
    }
    runningCall = new (shared) std::atomic<const char*>(nullptr);
}

template <class Function, class... Arguments>
auto call(const char* name, Function function, const Arguments&... arguments)
{
    const char* const outer = runningCall->exchange(name);
    const auto result = function(arguments...);
    *runningCall = outer;
    return result;
}

// A child that answers requests. It is killed in the end, and when its parent dies, whatever it is doing.
class Process {
public:
    using Serve = std::function<std::string(const std::string& request)>;

    Process(milliseconds limit, const Serve& serve) : limit_(limit)
    {
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
            throw Failure(std::string("cannot make a socket: ") + std::strerror(errno));
        }
        *runningCall = nullptr;
        id_ = fork();
        if (id_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(ends[0]);
            socket_ = ends[1];
            run(serve);
        }
        close(ends[1]);
        socket_ = ends[0];
        if (id_ < 0) {
            close(socket_);
            throw Failure(std::string("cannot start another process: ") + std::strerror(errno));
        }
    }
    ~Process()
    {
        close(socket_);
        end();
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// @throws Failure with what the child threw, or why it did not answer.
    std::string ask(const std::string& request)
    {
        (void)send(socket_, request.data(), request.size(), MSG_NOSIGNAL);
        pollfd waiting{socket_, POLLIN, 0};
        if (poll(&waiting, 1, static_cast<int>(limit_.count())) <= 0) {
            failInCall("none in time");
        }
        std::string answer(kLongest, '\0');
        const ssize_t size = recv(socket_, answer.data(), answer.size(), 0);
        if (size <= 0) {
            failInCall(end());
        }
        answer.resize(static_cast<std::size_t>(size));
        if (answer[0] != kDone) {
            throw Failure(answer.substr(1));
        }
        return answer.substr(1);
    }

private:
    static constexpr std::size_t kLongest = 65536;  // of an answer; the rest is cut off
    static constexpr char kDone = '+';
    static constexpr char kFailed = '-';

    [[noreturn]] void run(const Serve& serve) const noexcept
    {
        std::array<char, 16> request{};
        for (;;) {
            const ssize_t size = recv(socket_, request.data(), request.size(), 0);
            if (size <= 0) {
                _exit(0);
            }
            std::string answer;
            try {
                answer = kDone + serve({request.data(), static_cast<std::size_t>(size)});
            } catch (const std::exception& error) {
                answer = kFailed + std::string(error.what());
            }
            (void)send(socket_, answer.data(), std::min(answer.size(), kLongest), MSG_NOSIGNAL);
        }
    }

    [[noreturn]] static void failInCall(const std::string& got)
    {
        const char* const name = runningCall->load();
        throw Failure((name == nullptr ? std::string("outside the calls") : name) + ": expected to return, got " + got);
    }

    // Says how the process ended.
    std::string end()
    {
        int status = 0;
        if (id_ > 0) {
            kill(id_, SIGKILL);
            waitpid(id_, &status, 0);
            id_ = -1;
        }
        if (WIFSIGNALED(status)) {
            const int number = WTERMSIG(status);
            return "signal " + std::to_string(number) + " (" + strsignal(number) + ")";
        }
        return "exit code " + std::to_string(WEXITSTATUS(status));
    }

    milliseconds limit_;
    pid_t id_ = -1;
    int socket_ = -1;
};

// ---- keys and values: texts, those of a boolean 0 and 1, so that a message can show whatever comes ------------------

struct Type {
    const char* getter;
    int (*get)(const char* key, int* value);  // null for strings, as is the next function
    const char* setter;
    int (*set)(const char* key, int value);
    std::array<const char*, 4> samples;
};

constexpr Type kString{"vconf_get_str",
                       nullptr,
                       "vconf_set_str",
                       nullptr,
                       {"first", "second", "second", "\"Gr\xc3\xbc\xc3\x9f\x65\" 100%s\n"}};
constexpr Type kInteger{
    "vconf_get_int", vconf_get_int, "vconf_set_int", vconf_set_int, {"7", "-2147483648", "-2147483648", "2147483647"}};
constexpr Type kBoolean{"vconf_get_bool", vconf_get_bool, "vconf_set_bool", vconf_set_bool, {"1", "0", "0", "1"}};

struct Key {
    const Type* type;
    const char* name;
};

constexpr Key kText{&kString, "memory/zolctl/selftest/text"};
constexpr Key kNumber{&kInteger, "memory/zolctl/selftest/number"};
constexpr Key kFlag{&kBoolean, "memory/zolctl/selftest/flag"};
constexpr std::array<Key, 3> kScratchKeys{kText, kNumber, kFlag};
constexpr char kNeverWritten[] = "memory/zolctl/selftest/none";

std::vector<std::string> samplesOf(const Key& key)
{
    std::vector<std::string> samples(key.type->samples.begin(), key.type->samples.end());
    if (key.type == &kString) {
        samples.emplace_back(5000, 'x');  // longer than buffers and pages usually are
    }
    return samples;
}

std::optional<std::string> read(const Key& key)
{
    if (key.type == &kString) {
        const std::unique_ptr<char, decltype(&std::free)> text(call(kString.getter, vconf_get_str, key.name),
                                                               std::free);
        return text ? std::optional<std::string>(text.get()) : std::nullopt;
    }
    int number = 0;
    const bool found = call(key.type->getter, key.type->get, key.name, &number) == 0;
    return found ? std::optional(std::to_string(number)) : std::nullopt;
}

std::string shown(const std::optional<std::string>& value) { return escaped(value.value_or("no value")); }

std::optional<std::string> readByLibrary(const Key& key)
{
    if (key.type == &kBoolean) {
        return call("getBool", getBool, key.name) ? "1" : "0";
    }
    if (key.type == &kString) {
        std::string text;
        return call("getString", getString, key.name, std::ref(text)) ? std::optional(text) : std::nullopt;
    }
    int number = 0;
    return call("getInt", getInt, key.name, std::ref(number)) ? std::optional(std::to_string(number)) : std::nullopt;
}

int tryToWrite(const Key& key, const std::string& value)
{
    return key.type == &kString ? call(kString.setter, vconf_set_str, key.name, value.c_str())
                                : call(key.type->setter, key.type->set, key.name, std::stoi(value));
}

void write(const Key& key, const std::string& value)
{
    expectSuccess(std::string("writing ") + key.name, tryToWrite(key, value));
}

void writeByLibrary(const Key& key, const std::string& value)
{
    bool done = false;
    if (key.type == &kString) {
        done = call("setString", setString, key.name, value);
    } else if (key.type == &kBoolean) {
        done = call("setBool", setBool, key.name, value == "1");
    } else {
        done = call("setInt", setInt, key.name, std::stoi(value));
    }
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
        std::string event = describe(node, userData);
        if (act != nullptr) {
            event += act(*this);
        }
        const std::lock_guard<std::mutex> guard(lock);
        append(calls, event);
    }
    std::string describe(const keynode_t* node, const void* userData) const
    {
        if (userData != this) {
            return "other user data";
        }
        if (node == nullptr || node->keyname == nullptr) {
            return "a null pointer";
        }
        if (std::strcmp(node->keyname, key.name) != 0) {
            return "the keyname " + escaped(node->keyname);
        }
        if (key.type != &kString) {
            return std::to_string(node->value.i);
        }
        return node->value.s == nullptr ? "a null pointer" : escaped(node->value.s);
    }
    std::string callsSoFar()
    {
        const std::lock_guard<std::mutex> guard(lock);
        return calls.empty() ? "none" : calls;
    }
    /// Waits for these calls until the time is over, then a little for calls that must not come.
    void expectCalls(const std::string& expected)
    {
        waitUntil([&] { return callsSoFar() == expected; });
        std::this_thread::sleep_for(kQuiet);
        expect("calls of the handler", expected, callsSoFar());
    }
    int tryToEnd() const { return call("vconf_ignore_key_changed", vconf_ignore_key_changed, key.name, handler); }
    void end() const { expectSuccess("vconf_ignore_key_changed", tryToEnd()); }

    Key key{};
    vconf_callback_fn handler = nullptr;
    std::string (*act)(const Subscription&) = nullptr;  // the result follows the value in the list of calls
    std::mutex lock;                                    // of the calls
    std::string calls;
};

// Never destroyed while the process runs: a platform may go on calling after a subscription has ended.
std::array<Subscription, 2> subscriptions;

template <std::size_t number = 0>
Subscription& subscribe(const Key& key, std::string (*act)(const Subscription&) = nullptr)
{
    Subscription& self = subscriptions[number];
    self.key = key;
    self.act = act;
    self.handler = [](keynode_t* node, void* userData) { subscriptions[number].called(node, userData); };
    constexpr char kName[] = "vconf_notify_key_changed";
    expectSuccess(kName, call(kName, vconf_notify_key_changed, key.name, self.handler, &self));
    return self;
}

// ---- the checks -----------------------------------------------------------------------------------------------------

void isReadAsWritten(const Key& key)
{
    for (const auto& writeEitherWay : {write, writeByLibrary}) {
        for (const std::string& value : samplesOf(key)) {
            writeEitherWay(key, value);
            expect(key.type->getter, escaped(value), shown(read(key)));
            expect(std::string(key.name) + " read through the library", escaped(value), shown(readByLibrary(key)));
        }
    }
}

void cannotBeRead(const Key& key)
{
    const std::string getter = key.type->getter;
    expect(getter, "no value", shown(read(key)));
    if (key.type != &kString) {
        int value = -77;
        (void)call(key.type->getter, key.type->get, key.name, &value);
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
        expect(type->getter, "0", shown(read({type, key.name})));
    }
    cannotBeRead({&kBoolean, key.name});
}

// Reads the scratch number, or writes the one that it is sent and answers the result. Construct it before the check
// itself uses the platform.
struct OtherProcess : Process {
    OtherProcess() : Process(timeLimit, serve) {}
    static std::string serve(const std::string& request)
    {
        return request == "read" ? shown(read(kNumber)) : std::to_string(tryToWrite(kNumber, request));
    }
    void write(const std::string& value) { expect("vconf_set_int in another process", "0", ask(value)); }
};

void otherProcessReads(const Key& key)
{
    OtherProcess other;
    for (const std::string& value : samplesOf(key)) {
        write(key, value);
        expect("vconf_get_int in another process", value, other.ask("read"));
    }
}

void handlerSeesChanges(const Key& key)
{
    Subscription& subscription = subscribe(key);
    std::string expected;
    for (const std::string& value : samplesOf(key)) {
        write(key, value);
        append(expected, escaped(value));
    }
    subscription.expectCalls(expected);
    subscription.end();
}

void handlerSeesOtherProcess(const Key& key)
{
    OtherProcess other;
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
    const auto describe = [](int result) { return result == 0 ? "0" : "a failure"; };
    const vconf_callback_fn other = [](keynode_t* /*node*/, void* /*userData*/) {};
    Subscription& subscription = subscribe(key);
    constexpr char kName[] = "vconf_ignore_key_changed";
    expect("vconf_ignore_key_changed for another handler", "a failure",
           describe(call(kName, vconf_ignore_key_changed, key.name, other)));
    subscription.end();
    expect("vconf_ignore_key_changed for the second time", "a failure", describe(subscription.tryToEnd()));
}

void handlerMayCall(const Key& key)
{
    Subscription& subscription = subscribe(key, [](const Subscription& self) {
        const std::string text = shown(read(kText));
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

// Another process makes the change, because a platform may call the handlers from within the call that writes.
void endDoesNotWait(const Key& key)
{
    static std::atomic<bool> isInHandler{false};
    static std::atomic<bool> isReleased{false};
    OtherProcess other;
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
    Check{"a handler is called once for each change of a string, in order", handlerSeesChanges, kText},
    Check{"a handler is called once for each change of an integer, in order", handlerSeesChanges, kNumber},
    Check{"a handler is called once for each change of a boolean, in order", handlerSeesChanges, kFlag},
    Check{"a handler is called for the changes by another process", handlerSeesOtherProcess, kNumber},
    Check{"a key without a value can be subscribed to", noValueCanBeSubscribed, {&kString, kNeverWritten}},
    Check{"no call comes for an ended subscription, and all for another of its key", endedSubscriptionIsSilent,
          kNumber},
    Check{"what is not subscribed cannot be unsubscribed", noSubscriptionCannotEnd, kText},
    Check{"a handler may read, write and unsubscribe itself", handlerMayCall, kNumber},
    Check{"unsubscribing does not wait for a handler that is running", endDoesNotWait, kNumber},
};

// ---- running them ---------------------------------------------------------------------------------------------------

// Reads the scratch keys and answers which of them have no value; restores them later.
std::string serveScratchKeys(const std::string& request)
{
    static std::vector<std::pair<Key, std::string>> saved;
    if (request == "restore") {
        for (const auto& [key, value] : saved) {
            expectSuccess(std::string("restoring ") + key.name, tryToWrite(key, value));
        }
        return "";
    }
    std::string without;
    for (const Key& key : kScratchKeys) {
        std::optional<std::string> found;
        for (const Type* type : {&kString, &kInteger, &kBoolean}) {  // somebody else may have written another type
            const Key typed{type, key.name};
            const std::optional<std::string> value = found ? std::nullopt : read(typed);
            if (value) {
                saved.emplace_back(typed, *value);
                found = value;
            }
        }
        if (!found) {
            saved.emplace_back(key, key.type == &kString ? "-" : "0");  // the platform cannot remove a key
            append(without, key.name);
        }
    }
    return without;
}

// What went wrong, or an empty text.
std::string faultOf(Process& process, const char* request)
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
    sigset_t held{};  // signals that would otherwise end the tool before the keys are restored
    sigemptyset(&held);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        sigaddset(&held, number);
    }
    sigprocmask(SIG_BLOCK, &held, nullptr);
    shareRunningCall();
    Process keeper(timeLimit + kSlack, serveScratchKeys);
    const std::string without = keeper.ask("save");

    std::size_t passed = 0;
    std::size_t failed = 0;
    std::string endedBy;
    try {
        for (const Check& check : kChecks) {
            const timespec noTime{};
            if (sigtimedwait(&held, nullptr, &noTime) > 0) {
                throw Failure("interrupted");
            }
            Process process(timeLimit + kSlack, [&](const std::string& /*request*/) {
                deadline = Clock::now() + timeLimit;
                check.run(check.key);
                return "";
            });
            const std::string fault = faultOf(process, "run");
            const std::string promise = check.promise;
            if (fault.empty()) {
                ++passed;
                print("ok   " + promise + "\n");
            } else {
                ++failed;
                print("FAIL " + promise + " (" + fault + ")\n");
            }
        }
    } catch (const Failure& failure) {
        endedBy = failure.what();
    }
    const std::string problem = faultOf(keeper, "restore");
    sigprocmask(SIG_UNBLOCK, &held, nullptr);  // ends the tool if the reader of its output has gone

    if (problem.empty() && !without.empty()) {
        print("These keys had no value and keep a meaningless one until the machine restarts: " + without + "\n");
    }
    print(std::to_string(passed) + " of " + std::to_string(kChecks.size()) + " checks hold, " + std::to_string(failed) +
          " fail, " + std::to_string(kChecks.size() - passed - failed) + " skipped\n");
    for (const std::string& message : {problem, endedBy}) {
        if (!message.empty()) {
            printError(message);
        }
    }
    return failed == 0 && problem.empty() && endedBy.empty() ? 0 : kExitFailed;
}

}  // namespace zolctl
