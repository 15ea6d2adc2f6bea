// Threads: each check runs on a thread of its own, so that a platform that never returns is told of, too. The main
// thread waits for it, prints, and looks for signals between the checks. A second process does what others do.

#include "selftest.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vconf.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <future>
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
#include "signals.h"

namespace zolctl {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr std::chrono::milliseconds kQuiet{50};  // for how long a call that must not come is waited for
constexpr Seconds kSlack{1};                     // what a check may take longer than what it waits for

// What the platform does differently.
struct Broken : std::runtime_error {
    Broken(const std::string& what, const std::string& expected, const std::string& came)
        : runtime_error(what + ": expected " + expected + ", came " + came)
    {
    }
};

void expect(const std::string& what, const std::string& expected, const std::string& came)
{
    if (came != expected) {
        throw Broken(what, expected, came);
    }
}

void expectSuccess(const std::string& function, int result) { expect(function, "0", std::to_string(result)); }

void expectFailure(const std::string& function, int result)
{
    if (result == 0) {
        throw Broken(function, "a failure", "0");
    }
}

// ---- keys and values ------------------------------------------------------------------------------------------------

// Values are texts here, those of a boolean 0 and 1, so that a message can show whatever comes.

enum class Type { String, Integer, Boolean };

struct Key {
    Type type;
    const char* name;
};

constexpr Key kText{Type::String, "memory/zolctl/selftest/text"};
constexpr Key kNumber{Type::Integer, "memory/zolctl/selftest/number"};
constexpr Key kFlag{Type::Boolean, "memory/zolctl/selftest/flag"};
constexpr std::array<Key, 3> kScratchKeys = {kText, kNumber, kFlag};

const char* getterOf(Type type)
{
    return type == Type::String ? "vconf_get_str" : type == Type::Integer ? "vconf_get_int" : "vconf_get_bool";
}

int readNumber(const Key& key, int& value)
{
    return key.type == Type::Integer ? vconf_get_int(key.name, &value) : vconf_get_bool(key.name, &value);
}

std::optional<std::string> read(const Key& key)
{
    if (key.type == Type::String) {
        const std::unique_ptr<char, decltype(&std::free)> text(vconf_get_str(key.name), std::free);
        return text ? std::optional<std::string>(text.get()) : std::nullopt;
    }
    int number = 0;
    return readNumber(key, number) == 0 ? std::optional<std::string>(std::to_string(number)) : std::nullopt;
}

int tryToWrite(const Key& key, const std::string& value)
{
    switch (key.type) {
        case Type::String:
            return vconf_set_str(key.name, value.c_str());
        case Type::Integer:
            return vconf_set_int(key.name, std::stoi(value));
        default:
            return vconf_set_bool(key.name, std::stoi(value));
    }
}

void write(const Key& key, const std::string& value)
{
    expectSuccess(std::string("writing ") + key.name, tryToWrite(key, value));
}

std::optional<std::string> readByLibrary(const Key& key)
{
    std::string text;
    int number = 0;
    switch (key.type) {
        case Type::String:
            return getString(key.name, text) ? std::optional<std::string>(text) : std::nullopt;
        case Type::Integer:
            return getInt(key.name, number) ? std::optional<std::string>(std::to_string(number)) : std::nullopt;
        default:
            return getBool(key.name) ? "1" : "0";
    }
}

void writeByLibrary(const Key& key, const std::string& value)
{
    const bool done = key.type == Type::String    ? setString(key.name, value)
                      : key.type == Type::Integer ? setInt(key.name, std::stoi(value))
                                                  : setBool(key.name, value == "1");
    expect(std::string("writing ") + key.name + " through the library", "success", done ? "success" : "a failure");
}

std::string shown(const std::optional<std::string>& value) { return value ? escaped(*value) : "no value"; }

std::string joined(const std::vector<std::string>& calls)
{
    std::string text;
    for (const std::string& call : calls) {
        text += (text.empty() ? "" : ", ") + call;
    }
    return calls.empty() ? "none" : text;
}

// What the scratch keys held before. Sets them back in the end.
class ScratchKeys {
public:
    ScratchKeys()
    {
        for (std::size_t i = 0; i < kScratchKeys.size(); ++i) {
            // Somebody may have left a value of another type there.
            for (const Type type : {kScratchKeys[i].type, Type::String, Type::Integer, Type::Boolean}) {
                const Key key{type, kScratchKeys[i].name};
                std::optional<std::string> value = saved_[i] ? std::nullopt : read(key);
                if (value) {
                    saved_[i] = {key, *std::move(value)};
                }
            }
        }
    }
    ~ScratchKeys() { setBack(); }
    ScratchKeys(const ScratchKeys&) = delete;
    ScratchKeys(ScratchKeys&&) = delete;
    ScratchKeys& operator=(const ScratchKeys&) = delete;
    ScratchKeys& operator=(ScratchKeys&&) = delete;

    /// Keys without a value get a neutral one, since the platform has no call that removes a key.
    /// @return whether the platform took it.
    bool setBack()
    {
        if (!std::exchange(done_, true)) {
            for (std::size_t i = 0; i < kScratchKeys.size(); ++i) {
                const Key& key = kScratchKeys[i];
                taken_ = (saved_[i] ? tryToWrite(saved_[i]->first, saved_[i]->second)
                                    : tryToWrite(key, key.type == Type::String ? "-" : "0")) == 0 &&
                         taken_;
            }
        }
        return taken_;
    }

    /// The keys that had no value.
    std::vector<std::string> left() const
    {
        std::vector<std::string> names;
        for (std::size_t i = 0; i < kScratchKeys.size(); ++i) {
            if (!saved_[i]) {
                names.emplace_back(kScratchKeys[i].name);
            }
        }
        return names;
    }

private:
    std::array<std::optional<std::pair<Key, std::string>>, kScratchKeys.size()> saved_;
    bool done_ = false;
    bool taken_ = true;
};

// ---- another process ------------------------------------------------------------------------------------------------

// Writes and reads the scratch number. It is forked before the platform is used for the first time, since a platform
// need not work in a child of a process that has used it.
class OtherProcess {
public:
    explicit OtherProcess(Seconds timeout)
    {
        std::array<int, 2> ends{};
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0 || (process_ = fork()) < 0) {
            throw Failure(std::string("cannot start a second process: ") + std::strerror(errno));
        }
        if (process_ == 0) {
            close(ends[0]);
            serve(ends[1]);
        }
        close(ends[1]);
        socket_ = ends[0];
        const auto limit = std::chrono::duration_cast<std::chrono::microseconds>(timeout).count();
        const timeval time{static_cast<time_t>(limit / 1000000), static_cast<suseconds_t>(limit % 1000000)};
        (void)setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
    }
    ~OtherProcess()
    {
        close(socket_);  // which ends it
        if (!answers_) {
            kill(process_, SIGKILL);
        }
        waitpid(process_, nullptr, 0);
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess(OtherProcess&&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;
    OtherProcess& operator=(OtherProcess&&) = delete;

    void writeNumber(int value)
    {
        expectSuccess("vconf_set_int in another process", ask({Call::Write, value, 0}).result);
    }

    int readNumber()
    {
        const Message answer = ask({Call::Read, 0, 0});
        expectSuccess("vconf_get_int in another process", answer.result);
        return answer.value;
    }

private:
    enum class Call { Read, Write };
    // A request, and then its answer. Without padding, which would go out uninitialised.
    struct Message {
        Call call;
        int value;
        int result;
    };

    Message ask(Message message)
    {
        answers_ = answers_ && send(socket_, &message, sizeof message, MSG_NOSIGNAL) == sizeof message &&
                   recv(socket_, &message, sizeof message, 0) == sizeof message;
        if (!answers_) {
            throw Broken("a call in another process", "its end", "none in time");
        }
        return message;
    }

    [[noreturn]] static void serve(int socket)
    {
        Message message{};
        while (recv(socket, &message, sizeof message, 0) == sizeof message) {
            message.result = message.call == Call::Write ? vconf_set_int(kNumber.name, message.value)
                                                         : vconf_get_int(kNumber.name, &message.value);
            (void)send(socket, &message, sizeof message, MSG_NOSIGNAL);
        }
        _exit(0);
    }

    pid_t process_ = -1;
    int socket_ = -1;
    bool answers_ = true;
};

// ---- subscriptions --------------------------------------------------------------------------------------------------

// One handler, what it was called with, and what it does in a call. Each is used for one subscription only and lives as
// long as the process: a platform may go on calling after the subscription has ended.
class Subscriber {
public:
    /// What to do in a call; the result stands behind the value in the list of calls.
    using Act = std::string (*)(Subscriber&);

    int subscribe(const Key& key, vconf_callback_fn handler, Clock::time_point deadline, Act act)
    {
        type_ = key.type;
        name_ = key.name;
        handler_ = handler;
        deadline_ = deadline;
        act_ = act;
        return vconf_notify_key_changed(key.name, handler_, this);
    }
    int unsubscribe() { return vconf_ignore_key_changed(name_.c_str(), handler_); }

    void called(const keynode_t* node, const void* userData)
    {
        std::string call = describe(node, userData);
        if (act_ != nullptr) {
            call += act_(*this);
        }
        const std::lock_guard<std::mutex> guard(lock_);
        calls_.push_back(std::move(call));
        changed_.notify_all();
    }

    /// Waits until that many calls have ended or the time is over, then a little for calls that must not come.
    std::vector<std::string> calls(std::size_t count)
    {
        std::unique_lock<std::mutex> guard(lock_);
        changed_.wait_until(guard, deadline_, [&] { return calls_.size() >= count; });
        guard.unlock();
        std::this_thread::sleep_for(kQuiet);
        guard.lock();
        return calls_;
    }

    /// In a call: stays there until released, or until the time is over.
    bool stay()
    {
        std::unique_lock<std::mutex> guard(lock_);
        inside_ = true;
        changed_.notify_all();
        return changed_.wait_until(guard, deadline_, [this] { return released_; });
    }
    bool waitForStay()
    {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_until(guard, deadline_, [this] { return inside_; });
    }
    void release()
    {
        const std::lock_guard<std::mutex> guard(lock_);
        released_ = true;
        changed_.notify_all();
    }

private:
    std::string describe(const keynode_t* node, const void* userData) const
    {
        if (userData != this) {
            return "other user data";
        }
        if (node == nullptr || node->keyname == nullptr) {
            return "a null pointer";
        }
        if (node->keyname != name_) {
            return std::string("the keyname ") + escaped(node->keyname);
        }
        if (type_ != Type::String) {
            return std::to_string(node->value.i);
        }
        return node->value.s == nullptr ? "a null pointer" : escaped(node->value.s);
    }

    Type type_ = Type::String;
    std::string name_;  // a copy, for calls that come too late
    vconf_callback_fn handler_ = nullptr;
    Clock::time_point deadline_;
    Act act_ = nullptr;

    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> calls_;
    bool inside_ = false;
    bool released_ = false;
};

using Subscribers = std::array<Subscriber, 12>;

Subscribers& subscribers()
{
    static auto* const all = new Subscribers;
    return *all;
}

template <std::size_t number>
void handler(keynode_t* node, void* userData)
{
    subscribers()[number].called(node, userData);
}

template <std::size_t... numbers>
constexpr std::array<vconf_callback_fn, sizeof...(numbers)> makeHandlers(std::index_sequence<numbers...> /*numbers*/)
{
    return {handler<numbers>...};
}

constexpr auto kHandlers = makeHandlers(std::make_index_sequence<std::tuple_size_v<Subscribers>>());

// What a check works with.
struct Run {
    Clock::time_point deadline;
    OtherProcess& other;
    std::size_t used = 0;  // subscribers
};

class Subscription {
public:
    Subscription(Run& run, const Key& key, Subscriber::Act act = nullptr) : subscriber_(subscribers().at(run.used))
    {
        expectSuccess("vconf_notify_key_changed",
                      subscriber_.subscribe(key, kHandlers.at(run.used++), run.deadline, act));
    }
    ~Subscription()
    {
        if (!ended_) {
            subscriber_.unsubscribe();
        }
    }
    Subscription(const Subscription&) = delete;
    Subscription(Subscription&&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    Subscription& operator=(Subscription&&) = delete;

    Subscriber& subscriber() { return subscriber_; }

    int end()
    {
        ended_ = true;
        return subscriber_.unsubscribe();
    }

    void expectCalls(const std::vector<std::string>& expected)
    {
        expect("calls of the handler", joined(expected), joined(subscriber_.calls(expected.size())));
    }

private:
    Subscriber& subscriber_;
    bool ended_ = false;
};

// ---- the checks -----------------------------------------------------------------------------------------------------

std::vector<std::string> samplesOf(Type type)
{
    switch (type) {
        case Type::String:
            return {"first", "second", "second", "\"Gr\xc3\xbc\xc3\x9f\x65\" 100%s\n"};
        case Type::Integer:
            return {"7", "-2147483648", "-2147483648", "2147483647"};
        default:
            return {"1", "0", "0", "1"};
    }
}

void isReadAsWritten(Run& /*run*/, const Key& key)
{
    const std::string byLibrary = std::string(key.name) + " read through the library";
    for (const std::string& value : samplesOf(key.type)) {
        write(key, value);
        expect(getterOf(key.type), escaped(value), shown(read(key)));
        expect(byLibrary, escaped(value), shown(readByLibrary(key)));
    }
    for (const std::string& value : samplesOf(key.type)) {
        writeByLibrary(key, value);
        expect(getterOf(key.type), escaped(value), shown(read(key)));
    }
}

void cannotBeRead(const Key& key)
{
    expect(getterOf(key.type), "no value", shown(read(key)));
    if (key.type != Type::String) {
        int value = -77;
        (void)readNumber(key, value);
        expect(std::string("the value after a failed ") + getterOf(key.type), "-77", std::to_string(value));
    }
}

// A key that never had a value.
std::string freshName()
{
    return "memory/zolctl/selftest/none-" + std::to_string(getpid()) + "-" +
           std::to_string(std::chrono::system_clock::now().time_since_epoch().count());
}

void noValueCannotBeRead(Run& /*run*/, const Key& key)
{
    const std::string name = freshName();
    cannotBeRead({key.type, name.c_str()});
}

void otherTypeCannotBeRead(Run& /*run*/, const Key& key)
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

void writeReplacesType(Run& /*run*/, const Key& key)
{
    for (const Type type : {Type::Integer, Type::Boolean, Type::String}) {
        write(key, "1");
        const Key replaced{type, key.name};
        write(replaced, "0");
        expect(getterOf(type), "0", shown(read(replaced)));
    }
    cannotBeRead({Type::Boolean, key.name});
}

void otherProcessReads(Run& run, const Key& key)
{
    for (const std::string& value : samplesOf(key.type)) {
        write(key, value);
        expect("vconf_get_int in another process", value, std::to_string(run.other.readNumber()));
    }
}

void isToldOfChanges(Run& run, const Key& key)
{
    Subscription subscription(run, key);
    std::vector<std::string> expected;
    for (const std::string& value : samplesOf(key.type)) {
        write(key, value);
        expected.push_back(escaped(value));
    }
    subscription.expectCalls(expected);
    expectSuccess("vconf_ignore_key_changed", subscription.end());
}

void isToldOfOtherProcess(Run& run, const Key& key)
{
    Subscription subscription(run, key);
    run.other.writeNumber(3);
    run.other.writeNumber(4);
    subscription.expectCalls({"3", "4"});
}

void noValueCanBeSubscribed(Run& run, const Key& key)
{
    const std::string name = freshName();
    Subscription subscription(run, {key.type, name.c_str()});
    subscription.expectCalls({});
    expectSuccess("vconf_ignore_key_changed", subscription.end());
}

void endedSubscriptionIsSilent(Run& run, const Key& key)
{
    Subscription ended(run, key);
    Subscription kept(run, key);
    write(key, "1");
    ended.expectCalls({"1"});
    expectSuccess("vconf_ignore_key_changed", ended.end());
    write(key, "2");
    kept.expectCalls({"1", "2"});
    ended.expectCalls({"1"});
}

void noSubscriptionCannotEnd(Run& run, const Key& key)
{
    Subscription subscription(run, key);
    expectFailure("vconf_ignore_key_changed for another handler",
                  vconf_ignore_key_changed(key.name, kHandlers.at(run.used)));
    expectSuccess("vconf_ignore_key_changed", subscription.end());
    expectFailure("vconf_ignore_key_changed for the second time", subscription.end());
}

void handlerMayCall(Run& run, const Key& key)
{
    Subscription subscription(run, key, [](Subscriber& self) {
        const std::string text = shown(read(kText));
        const int result = tryToWrite(kFlag, "1");
        return " (reads " + text + ", writes with " + std::to_string(result) + ", unsubscribes with " +
               std::to_string(self.unsubscribe()) + ")";
    });
    write(kText, "seen");
    write(key, "1");
    subscription.expectCalls({"1 (reads seen, writes with 0, unsubscribes with 0)"});
    write(key, "2");
    subscription.expectCalls({"1 (reads seen, writes with 0, unsubscribes with 0)"});
}

// The change is another process's: a platform may call the handlers from within the call that writes.
void endDoesNotWait(Run& run, const Key& key)
{
    Subscription subscription(
        run, key, [](Subscriber& self) -> std::string { return self.stay() ? " (not waited for)" : " (waited for)"; });
    run.other.writeNumber(1);
    if (!subscription.subscriber().waitForStay()) {
        throw Broken("calls of the handler", "one", "none");
    }
    expectSuccess("vconf_ignore_key_changed", subscription.end());
    subscription.subscriber().release();
    subscription.expectCalls({"1 (not waited for)"});
}

struct Check {
    const char* promise;
    void (*run)(Run&, const Key&);
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

// Runs the step on a thread of its own and throws what it throws; false when it does not end in time and goes on.
template <class Step>
bool endsInTime(Step step, Seconds limit)
{
    std::packaged_task<void()> task(std::move(step));
    std::future<void> end = task.get_future();
    std::thread thread(std::move(task));
    if (end.wait_for(limit) != std::future_status::ready) {
        thread.detach();
        return false;
    }
    thread.join();
    end.get();
    return true;
}

// An orderly end would wait for what the call that hangs holds.
[[noreturn]] void endHanging(const std::string& step)
{
    printError("the platform does not return from a call " + step);
    std::_Exit(kExitFailed);
}

bool isPending(const sigset_t& signals)
{
    const timespec noTime{};
    return sigtimedwait(&signals, nullptr, &noTime) > 0;
}

}  // namespace

int selftest(double timeout)
{
    const Seconds limit(timeout);
    const sigset_t ending = blockEndingSignals();
    OtherProcess other(limit);
    std::optional<ScratchKeys> keys;
    if (!endsInTime([&] { keys.emplace(); }, limit + kSlack)) {
        endHanging("that reads a scratch key");
    }

    std::size_t made = 0;
    std::size_t failed = 0;
    bool hangs = false;
    bool interrupted = false;
    Run run{{}, other};
    for (const Check& check : kChecks) {
        std::string fault;
        run.deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(limit);
        try {
            hangs = !endsInTime([&] { check.run(run, check.key); }, limit + kSlack);
            fault = hangs ? "a call into the platform: expected its end, came none in time" : "";
        } catch (const Broken& broken) {
            fault = broken.what();
        }
        print(fault.empty() ? std::string("ok   ") + check.promise + "\n"
                            : std::string("FAIL ") + check.promise + " (" + fault + ")\n");
        ++made;
        failed += fault.empty() ? 0 : 1;
        interrupted = made < kChecks.size() && isPending(ending);
        if (hangs || interrupted) {
            break;
        }
    }

    bool isBack = false;
    if (!endsInTime([&] { isBack = keys->setBack(); }, limit + kSlack)) {
        endHanging("that sets back a scratch key");
    }
    const std::vector<std::string> left = keys->left();
    if (isBack && !left.empty()) {
        print("These keys had no value and keep a meaningless one until the machine restarts: " + joined(left) + "\n");
    }
    print(std::to_string(made - failed) + " of " + std::to_string(kChecks.size()) + " checks hold, " +
          std::to_string(failed) + " fail, " + std::to_string(kChecks.size() - made) + " not made\n");
    if (!isBack) {
        printError("the platform refused the last write to a key under memory/zolctl/selftest/; add -v to see why");
    }
    if (interrupted) {
        printError("interrupted");
    }
    if (hangs) {
        endHanging("in the check that failed last, so that the others were not made");
    }
    return failed == 0 && made == kChecks.size() && isBack ? 0 : kExitFailed;
}

}  // namespace zolctl
