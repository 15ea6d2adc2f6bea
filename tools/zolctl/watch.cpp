// Threads: the platform's thread calls back and puts events into a queue, with their times; one thread prints them; the
// main thread waits for that one's end or the deadline; a last one waits for the end of who reads the output. A signal
// simply ends the process, so nothing is unregistered. The queue lasts as long as the process.

#include <poll.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <future>
#include <iterator>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include "commands.h"
#include "output.h"
#include "platform.h"
#include "settings.h"

namespace zolctl {
namespace {

using Clock = std::chrono::system_clock;

struct Event {
    Clock::time_point time;
    const Setting* setting = nullptr;  // null where changes were passed over
    Value value;
    std::uint64_t passedOver = 0;
};

// ---- the queue ------------------------------------------------------------------------------------------------------

struct Queue {
    std::mutex lock;  // of the events
    std::condition_variable added;
    std::deque<Event> events;
};
Queue& theQueue()
{
    static auto& queue = *new Queue;
    return queue;
}

void push(Event event)
{
    Queue& queue = theQueue();
    const std::lock_guard<std::mutex> guard(queue.lock);
    queue.events.push_back(std::move(event));
    queue.added.notify_one();
}

Event take()
{
    Queue& queue = theQueue();
    std::unique_lock<std::mutex> guard(queue.lock);
    queue.added.wait(guard, [&] { return !queue.events.empty(); });
    Event event = std::move(queue.events.front());
    queue.events.pop_front();
    return event;
}

template <class Type>
void onChange(Type value, void* setting)
{
    push({Clock::now(), static_cast<const Setting*>(setting), std::move(value)});
}

// The platform says in its log alone that this process fell behind, on the thread that then calls back, and that it
// can tell of no more changes.
void onPlatformLog(const std::string& line)
{
    const std::size_t end = line.find(" writes were dropped");
    if (end != std::string::npos) {
        const std::size_t space = line.rfind(' ', end - 1);
        push({Clock::now(), nullptr, {}, std::strtoull(&line[space + 1], nullptr, 10)});
    } else if (line.rfind("delivery: ", 0) == 0) {
        printError(line);
    }
}

void subscribe(const Setting& setting)
{
    const bool done = std::visit(
        [&](const auto& operations) {
            using Type = typename std::decay_t<decltype(operations)>::Type;
            // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): the library hands it back and does not look at it
            return operations.watch(onChange<Type>, const_cast<Setting*>(&setting)) == 1;
        },
        setting.operations);
    checkTaken(setting, done, "watched");
}

// ---- printing -------------------------------------------------------------------------------------------------------

// The time of day for people, date and zone as well (RFC 3339) for programs.
std::string textOf(Clock::time_point time, bool withDate)
{
    const auto milliseconds = std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch()).count();
    const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    std::array<char, 32> text{};
    std::array<char, 8> zone{};
    (void)std::strftime(text.data(), text.size(), withDate ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S", &local);
    (void)std::strftime(zone.data(), zone.size(), "%z", &local);  // as +0100
    const std::string fraction = std::to_string(1000 + milliseconds % 1000).replace(0, 1, ".");
    return text.data() + fraction + (withDate ? std::string(zone.data()).insert(3, ":") : "");
}

std::vector<std::string> missingFrom(const Apps& these, const Apps& those)
{
    std::vector<std::string> missing;
    std::set_difference(those.begin(), those.end(), these.begin(), these.end(), std::back_inserter(missing));
    return missing;
}

// Makes lines of events.
struct Printer {
    bool json;
    bool diff;
    Apps apps;            // that were on before
    bool failed = false;  // whether a value had to be left out

    std::string line(const Event& event)
    {
        if (event.setting == nullptr) {
            const std::string number = std::to_string(event.passedOver);
            return json ? R"({"time":")" + textOf(event.time, true) + R"(","passedOver":)" + number + "}\n"
                        : textOf(event.time, false) + "  (" + number +
                              " writes were passed over because this watcher fell behind)\n";
        }
        if (diff && event.setting->isAppList()) {
            return diffLine(event);
        }
        if (!json) {
            return textLine(event, escaped(toText(event.value)));
        }
        return jsonLine(event, [&](auto& writer) { return writeMember(writer, "value", *event.setting, event.value); });
    }

    static std::string textLine(const Event& event, const std::string& what)
    {
        return textOf(event.time, false) + "  " + styled(Style::Name, event.setting->name) + "  " + what + "\n";
    }

    template <class WriteRest>
    std::string jsonLine(const Event& event, WriteRest writeRest)
    {
        JsonBuffer buffer;
        rapidjson::Writer<JsonBuffer> writer(buffer);
        writer.StartObject();
        writer.Key("time");
        writeJson(writer, textOf(event.time, true));
        writer.Key("name");
        writer.String(event.setting->name);
        failed = !writeRest(writer) || failed;
        writer.EndObject();
        return toString(buffer) + "\n";
    }

    std::string diffLine(const Event& event)
    {
        const std::optional<Apps> parsed = appsThatAreOn(std::get<std::string>(event.value));
        const Apps before = std::exchange(apps, parsed.value_or(Apps()));
        const std::vector<std::string> on = missingFrom(before, apps);
        const std::vector<std::string> off = missingFrom(apps, before);
        if (json) {
            return jsonLine(event, [&](auto& writer) {
                writer.Key("on");
                const bool all = writeArray(writer, on);
                writer.Key("off");
                return writeArray(writer, off) && all;
            });
        }
        std::string what;
        for (const auto& [sign, those] : {std::pair(" +", &on), std::pair(" -", &off)}) {
            for (const std::string& app : *those) {
                what += sign + escaped(app);
            }
        }
        what += !parsed ? " (not a list)" : what.empty() ? " (no app changed)" : "";
        return textLine(event, what.substr(1));
    }
};

std::atomic<std::size_t> seen{0};  // changes that were printed

int printEvents(const std::vector<Event>& first, std::size_t count, const std::optional<Value>& until, Printer printer)
{
    for (const Event& event : first) {
        print(printer.line(event));
    }
    bool reached = until && !first.empty() && first.back().value == *until;
    while (!reached) {
        const Event event = take();
        print(printer.line(event));
        seen += event.setting != nullptr ? 1 : 0;
        reached = (count != 0 && seen == count) || (until && event.setting != nullptr && event.value == *until);
    }
    return printer.failed ? kExitFailed : 0;
}

// As a write would, also while there is nothing to write.
[[noreturn]] void endWithReader()
{
    pollfd output{STDOUT_FILENO, 0, 0};
    while (poll(&output, 1, -1) < 0) {
    }
    (void)std::raise(SIGPIPE);
    // cppcheck-suppress unreachableCode ; where that signal is ignored
    std::_Exit(kExitFailed);
}

std::vector<const Setting*> settingsToWatch(const std::vector<std::string>& names)
{
    std::set<const Setting*> wanted;
    for (const std::string& name : names) {
        wanted.insert(&findSetting(name));
    }
    std::vector<const Setting*> settings;
    std::vector<std::string> watchable;
    for (const Setting& setting : allSettings()) {
        if (setting.watchable()) {
            watchable.emplace_back(setting.name);
            if (names.empty() || wanted.erase(&setting) != 0) {
                settings.push_back(&setting);
            }
        }
    }
    if (!wanted.empty()) {
        throw UsageError(std::string((*wanted.begin())->name) +
                         " cannot be watched; these can: " + joined(watchable, ", "));
    }
    return settings;
}

}  // namespace

int watch(const WatchOptions& options)
{
    const std::vector<const Setting*> settings = settingsToWatch(options.names);
    std::optional<Value> until;
    if (options.until) {
        if (settings.size() != 1) {
            throw UsageError("--until needs the name of one setting");
        }
        until = parseValue(*settings[0], *options.until);
    }
    Apps apps;
    if (options.diff && !options.initial) {
        // Before the first change is waited for: what happens in between is then part of the first difference.
        const std::optional<Value> text = read(findSetting("ZOLConcurrentAppList"));
        apps = appsThatAreOn(text ? toText(*text) : "").value_or(Apps());
    }
    watchPlatformLog(onPlatformLog);
    for (const Setting* setting : settings) {
        subscribe(*setting);
    }
    std::vector<Event> first;  // read after that, so that no change is missed in between
    for (const Setting* setting : settings) {
        const std::optional<Value> value = options.initial || until ? read(*setting) : std::nullopt;
        if (value && (options.initial || value == until)) {
            first.push_back({Clock::now(), setting, *value});
        }
    }
    (void)std::fprintf(stderr, "watching %zu setting%s\n", settings.size(), settings.size() == 1 ? "" : "s");

    std::thread(endWithReader).detach();
    std::packaged_task<int()> printing([=, printer = Printer{options.json, options.diff, std::move(apps)}] {
        return printEvents(first, options.count, until, printer);
    });
    std::future<int> end = printing.get_future();
    std::thread(std::move(printing)).detach();
    const std::chrono::duration<double> limit(options.timeout.value_or(0));
    if (options.timeout && end.wait_for(limit) != std::future_status::ready) {
        if (options.count != 0 || until) {
            throw Failure("timed out after " + std::to_string(seen) +
                          (until ? std::string(" changes to other values")
                                 : " of " + std::to_string(options.count) + " changes"));
        }
        return 0;
    }
    return end.get();
}

}  // namespace zolctl
