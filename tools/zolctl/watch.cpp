// Threads: the store's delivery thread puts changes into the queue; the main thread prints them. It never waits for
// anything but poll(), so that a signal ends the tool also while the reader of its output does not read.

#include "watch.h"

#include <fcntl.h>
#include <poll.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <functional>
#include <iterator>
#include <list>
#include <mutex>
#include <set>
#include <utility>

#include "error.h"
#include "output.h"
#include "settings.h"
#include "signals.h"
#include "value.h"

namespace zolctl {
namespace {

using Clock = std::chrono::steady_clock;

// ---- changes --------------------------------------------------------------------------------------------------------

std::string timeOfDay()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    std::tm local{};
    localtime_r(&now.tv_sec, &local);
    std::array<char, 32> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%H:%M:%S", &local);
    (void)std::snprintf(text.data() + length, text.size() - length, ".%03d", static_cast<int>(now.tv_usec / 1000));
    return text.data();
}

struct Change {
    const Setting* setting;
    std::string time;
    Value value;
};

// Changes on their way from the delivery thread to the main thread.
class Queue {
public:
    Queue() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        if (wake_ < 0) {
            throw Failure(std::string("cannot watch: ") + std::strerror(errno));
        }
    }
    ~Queue() { close(wake_); }
    Queue(const Queue&) = delete;
    Queue(Queue&&) = delete;
    Queue& operator=(const Queue&) = delete;
    Queue& operator=(Queue&&) = delete;

    void push(Change change)
    {
        const std::lock_guard<std::mutex> guard(lock_);
        changes_.push_back(std::move(change));
        (void)!eventfd_write(wake_, 1);
    }

    std::deque<Change> takeAll()
    {
        const std::lock_guard<std::mutex> guard(lock_);
        eventfd_t ignored = 0;
        (void)!eventfd_read(wake_, &ignored);
        return std::exchange(changes_, {});
    }

    /// Can be read while there are changes.
    int wake() const { return wake_; }

private:
    int wake_;
    std::mutex lock_;
    std::deque<Change> changes_;
};

// A registered callback, from the constructor to the destructor.
class Subscription {
public:
    Subscription(Queue& queue, const Setting& setting) : queue_(queue), setting_(setting)
    {
        const bool done = std::visit(
            [this](const auto& operations) {
                using Type = typename std::decay_t<decltype(operations)>::Type;
                unwatch_ = [unwatch = operations.unwatch] { unwatch(changed<Type>); };
                return operations.watch(changed<Type>, this) == 1;
            },
            setting_.operations);
        if (!done) {
            throw Failure(std::string("cannot watch ") + setting_.name +
                          ": the store refused it; add -v to see its reason");
        }
    }
    ~Subscription() { unwatch_(); }
    Subscription(const Subscription&) = delete;
    Subscription(Subscription&&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    Subscription& operator=(Subscription&&) = delete;

private:
    template <class Type>
    static void changed(Type value, void* userData)
    {
        auto* const self = static_cast<Subscription*>(userData);
        self->queue_.push({&self->setting_, timeOfDay(), std::move(value)});
    }

    Queue& queue_;
    const Setting& setting_;
    std::function<void()> unwatch_;
};

// ---- the app list ---------------------------------------------------------------------------------------------------

using Apps = std::set<std::string>;

// The text of that member, or an empty one where there is no such text.
std::string textOf(const Document::ValueType& entry, const char* name)
{
    const auto member = entry.FindMember(name);
    return member != entry.MemberEnd() && member->value.IsString() ? member->value.GetString() : "";
}

// The apps that are on in the text of the app list; nothing when it is not a list.
std::optional<Apps> appsThatAreOn(const std::string& text)
{
    Document document;
    document.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (document.HasParseError() || !document.IsArray()) {
        return std::nullopt;
    }
    Apps apps;
    for (const Document::ValueType& entry : document.GetArray()) {
        if (entry.IsObject() && textOf(entry, "concurrent") == "on") {
            apps.insert(textOf(entry, "appid"));
        }
    }
    return apps;
}

std::vector<std::string> missingFrom(const Apps& these, const Apps& those)
{
    std::vector<std::string> missing;
    std::set_difference(those.begin(), those.end(), these.begin(), these.end(), std::back_inserter(missing));
    return missing;
}

// ---- printing -------------------------------------------------------------------------------------------------------

// Makes lines of changes.
class Printer {
public:
    Printer(bool json, bool diff, Apps apps) : json_(json), diff_(diff), apps_(std::move(apps)) {}

    std::string line(const Change& change)
    {
        const bool isAppList = std::strcmp(change.setting->name, "ZOLConcurrentAppList") == 0;
        if (diff_ && isAppList) {
            return diffLine(change);
        }
        if (!json_) {
            return textLine(change, escaped(toText(change.value)));
        }
        const bool shown = checkJson(*change.setting, change.value);
        failed_ = failed_ || !shown;
        return jsonLine(change, [&](auto& writer) {
            if (shown) {
                writer.Key("value");
                writeJson(writer, change.value);
            }
        });
    }

    /// Whether a value had to be left out.
    bool failed() const { return failed_; }

private:
    static std::string textLine(const Change& change, const std::string& what)
    {
        return change.time + "  " + styled(Style::Name, change.setting->name) + "  " + what + "\n";
    }

    template <class WriteRest>
    static std::string jsonLine(const Change& change, WriteRest writeRest)
    {
        JsonBuffer buffer;
        rapidjson::Writer<JsonBuffer> writer(buffer);
        writer.StartObject();
        writer.Key("time");
        writeJson(writer, change.time);
        writer.Key("name");
        writer.String(change.setting->name);
        writeRest(writer);
        writer.EndObject();
        return std::string(buffer.GetString(), buffer.GetSize()) + "\n";
    }

    std::string diffLine(const Change& change)
    {
        const std::optional<Apps> parsed = appsThatAreOn(std::get<std::string>(change.value));
        const Apps before = std::exchange(apps_, parsed.value_or(Apps()));
        const std::vector<std::string> on = missingFrom(before, apps_);
        const std::vector<std::string> off = missingFrom(apps_, before);
        if (json_) {
            return jsonLine(change, [&](auto& writer) {
                writer.Key("on");
                writeApps(writer, on);
                writer.Key("off");
                writeApps(writer, off);
            });
        }
        std::string what;
        for (const std::string& app : on) {
            what += (what.empty() ? "+" : " +") + escaped(app);
        }
        for (const std::string& app : off) {
            what += (what.empty() ? "-" : " -") + escaped(app);
        }
        if (!parsed) {
            what += what.empty() ? "(not a list)" : " (not a list)";
        }
        return textLine(change, what.empty() ? "(no app changed)" : what);
    }

    template <class Writer>
    void writeApps(Writer& writer, const std::vector<std::string>& apps)
    {
        writer.StartArray();
        for (const std::string& app : apps) {
            if (isUtf8(app)) {
                writeJson(writer, app);
            } else {
                printError("the app id " + app + " is not UTF-8 and is left out of the JSON");
                failed_ = true;
            }
        }
        writer.EndArray();
    }

    bool json_;
    bool diff_;
    bool failed_ = false;
    Apps apps_;  // that were on before
};

// Standard output, of which as much is written as its reader takes.
class Output {
public:
    // Standard output is shared with others, who may want to wait for its reader; opened again, it need not make this
    // tool wait. Not a file, where each opening has a position of its own; nor a socket, where it cannot be done.
    Output()
    {
        struct stat status {};
        const bool writable = (fcntl(STDOUT_FILENO, F_GETFL) & O_ACCMODE) != O_RDONLY;  // opened again it would be
        if (writable && fstat(STDOUT_FILENO, &status) == 0 && !S_ISREG(status.st_mode)) {
            const int own = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
            fd_ = own < 0 ? fd_ : own;
        }
    }
    ~Output()
    {
        if (fd_ != STDOUT_FILENO) {
            close(fd_);
        }
    }
    Output(const Output&) = delete;
    Output(Output&&) = delete;
    Output& operator=(const Output&) = delete;
    Output& operator=(Output&&) = delete;

    void add(const std::string& text)
    {
        if (written_ > waiting_.size() / 2) {
            waiting_.erase(0, std::exchange(written_, 0));
        }
        waiting_ += text;
    }
    bool empty() const { return written_ == waiting_.size(); }
    bool closed() const { return closed_; }

    /// What poll() is to wait for.
    pollfd poll() const { return {fd_, static_cast<short>(empty() ? 0 : POLLOUT), 0}; }

    /// Acts on what poll() found.
    void handle(short found)
    {
        if ((found & POLLOUT) != 0) {
            writeSome();
        } else if ((found & (POLLERR | POLLHUP)) != 0) {
            closed_ = true;
        } else if ((found & POLLNVAL) != 0) {
            throw Failure("cannot write to standard output: it is not open");
        }
    }

    /// Writes what can be written without waiting.
    void flush()
    {
        for (pollfd output = poll(); !empty() && !closed_ && ::poll(&output, 1, 0) > 0; output = poll()) {
            handle(output.revents);
        }
    }

private:
    // Where poll() finds room, this much can be written without waiting, unless somebody else was faster.
    void writeSome()
    {
        const ssize_t written =
            ::write(fd_, &waiting_[written_], std::min<std::size_t>(waiting_.size() - written_, PIPE_BUF));
        if (written >= 0) {
            written_ += static_cast<std::size_t>(written);
        } else if (errno == EPIPE) {
            closed_ = true;
        } else if (errno != EAGAIN && errno != EINTR) {
            throw Failure(std::string("cannot write to standard output: ") + std::strerror(errno));
        }
    }

    int fd_ = STDOUT_FILENO;
    std::string waiting_;
    std::size_t written_ = 0;  // of what was waiting
    bool closed_ = false;
};

// The signals that end the tool, as something to poll. They stay blocked to the end, so that the callbacks are
// unregistered whatever comes.
int openSignals()
{
    const sigset_t ending = blockEndingSignals();
    const int signals = signalfd(-1, &ending, SFD_CLOEXEC);
    if (signals < 0) {
        throw Failure(std::string("cannot watch: ") + std::strerror(errno));
    }
    return signals;
}

int pollTimeout(const std::optional<Clock::time_point>& deadline)
{
    if (!deadline) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(left, 0, INT_MAX));
}

std::vector<const Setting*> settingsToWatch(const std::vector<std::string>& names)
{
    std::vector<const Setting*> settings;
    for (const std::string& name : names) {
        const Setting* const setting = [&] {
            try {
                return &findSetting(name);
            } catch (const UsageError& error) {
                throw UsageError(std::string(error.what()) + " These can be watched: " + watchableNames());
            }
        }();
        if (!setting->watchable()) {
            throw UsageError(name + " cannot be watched; these can: " + watchableNames());
        }
        if (std::find(settings.begin(), settings.end(), setting) == settings.end()) {
            settings.push_back(setting);
        }
    }
    if (names.empty()) {
        for (const Setting& setting : allSettings()) {
            if (setting.watchable()) {
                settings.push_back(&setting);
            }
        }
    }
    return settings;
}

}  // namespace

int watch(const WatchOptions& options)
{
    const std::vector<const Setting*> settings = settingsToWatch(options.names);
    std::optional<Clock::time_point> deadline;
    if (options.timeout) {
        deadline =
            Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*options.timeout));
    }
    Apps apps;
    if (options.diff) {
        // Before the first change is waited for: what happens in between is then part of the first difference.
        const std::optional<Value> text = read(findSetting("ZOLConcurrentAppList"));
        apps = appsThatAreOn(text ? toText(*text) : "").value_or(Apps());
    }
    Printer printer(options.json, options.diff, std::move(apps));
    Output output;
    Queue queue;
    std::list<Subscription> subscriptions;
    for (const Setting* setting : settings) {
        subscriptions.emplace_back(queue, *setting);
    }
    (void)std::fprintf(stderr, "watching %zu setting%s\n", settings.size(), settings.size() == 1 ? "" : "s");
    const int signals = openSignals();  // not before: the line above may wait, and then a signal is to end the program

    std::size_t seen = 0;
    const auto complete = [&] { return options.count != 0 && seen == options.count; };
    const auto takeChanges = [&] {
        for (const Change& change : queue.takeAll()) {
            if (!complete()) {
                output.add(printer.line(change));
                ++seen;
            }
        }
    };

    bool interrupted = false;
    bool timedOut = false;
    while (!interrupted && !timedOut && !output.closed() && !(complete() && output.empty())) {
        std::array<pollfd, 3> sources = {{{signals, POLLIN, 0}, {queue.wake(), POLLIN, 0}, output.poll()}};
        const int found = ::poll(sources.data(), sources.size(), pollTimeout(deadline));
        timedOut = found == 0;
        if (found <= 0) {
            continue;
        }
        interrupted = sources[0].revents != 0;
        if (sources[1].revents != 0) {
            takeChanges();
        }
        output.handle(sources[2].revents);
    }

    subscriptions.clear();
    takeChanges();
    output.flush();
    if (timedOut && options.count != 0 && !complete()) {
        throw Failure("timed out after " + std::to_string(seen) + " of " + std::to_string(options.count) + " changes");
    }
    return printer.failed() ? kExitFailed : 0;
}

}  // namespace zolctl
