// The platform's thread puts events into a queue, with their times; the main thread prints them. A signal simply ends
// the process, so nothing is unregistered. The queue lasts as long as the process.

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <iostream>
#include <iterator>
#include <mutex>
#include <set>
#include <utility>

#include "commands.h"
#include "output.h"
#include "platform.h"
#include "settings.h"

namespace zolctl {
namespace {

using Clock = std::chrono::system_clock;
using Deadline = std::chrono::steady_clock::time_point;

struct Event {
    Clock::time_point time;
    const Setting* setting = nullptr;  // null if this is a report of the platform
    Value value;
    std::string problem;  // why changes can no longer be delivered; empty if writes were dropped
    std::uint64_t dropped = 0;
};

// ---- the queue ------------------------------------------------------------------------------------------------------

struct Queue {
    std::mutex lock;  // of the events
    std::deque<Event> events;
    int added = eventfd(0, EFD_CLOEXEC);  // readable after an event was added
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
    eventfd_write(queue.added, 1);
}

std::optional<Event> pop()
{
    Queue& queue = theQueue();
    const std::lock_guard<std::mutex> guard(queue.lock);
    if (queue.events.empty()) {
        return std::nullopt;
    }
    Event event = std::move(queue.events.front());
    queue.events.pop_front();
    return event;
}

// As a write would, also while there is nothing to write.
[[noreturn]] void endWithReader()
{
    (void)std::raise(SIGPIPE);
    // cppcheck-suppress unreachableCode ; where that signal is ignored
    std::_Exit(kExitFailed);
}

// Waits until an event may have been added or the time is over. The process ends when the reader of its output does.
void waitForEvent(std::chrono::milliseconds limit)
{
    constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24);
    std::array<pollfd, 2> files{{{theQueue().added, POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
    const int ready = poll(files.data(), files.size(), static_cast<int>(std::min(limit, kLongest).count()));
    if (ready > 0 && files[1].revents != 0) {
        endWithReader();
    }
    if (ready > 0) {
        eventfd_t ignored = 0;
        eventfd_read(theQueue().added, &ignored);
    }
}

// Nothing when the time is over.
std::optional<Event> take(const std::optional<Deadline>& deadline)
{
    for (;;) {
        auto left = std::chrono::milliseconds::max();
        if (deadline) {
            left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Deadline::clock::now());
        }
        if (left.count() <= 0) {
            return std::nullopt;
        }
        if (std::optional<Event> event = pop()) {
            return event;
        }
        waitForEvent(left);
    }
}

template <class Type>
void onChange(Type value, void* setting)
{
    push({Clock::now(), static_cast<const Setting*>(setting), std::move(value), "", 0});
}

void onReport(const std::string& problem, std::uint64_t dropped)
{
    push({Clock::now(), nullptr, {}, problem, dropped});
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
    checkAccepted(setting, done, "watched");
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
    Apps apps;  // that were on before
    bool isComplete = true;

    std::string line(const Event& event)
    {
        if (event.setting == nullptr) {
            return reportLine(event);
        }
        if (diff && event.setting->isAppList()) {
            return diffLine(event);
        }
        if (!json) {
            return textLine(event, escaped(toText(event.value)));
        }
        Json object(rapidjson::kObjectType);
        addTime(object, event);
        object.add(object.root, "name", event.setting->name, "");
        object.add(object.root, "value", event.value, event.setting->name);
        return jsonLine(object);
    }

private:
    std::string reportLine(const Event& event) const
    {
        if (!event.problem.empty()) {
            throw NoStore("the store cannot be used: " + event.problem);
        }
        if (!json) {
            return textOf(event.time, false) + "  (" + std::to_string(event.dropped) +
                   " writes were dropped because this watcher fell behind)\n";
        }
        Json object(rapidjson::kObjectType);
        addTime(object, event);
        object.add(object.root, "dropped", Json::Node(event.dropped));
        return object.text(Json::Layout::OneLine);
    }

    std::string diffLine(const Event& event)
    {
        const std::optional<Apps> parsed = appsThatAreOn(std::get<std::string>(event.value));
        const Apps before = std::exchange(apps, parsed.value_or(Apps()));
        const std::vector<std::string> on = missingFrom(before, apps);
        const std::vector<std::string> off = missingFrom(apps, before);
        if (json) {
            Json object(rapidjson::kObjectType);
            addTime(object, event);
            object.add(object.root, "name", event.setting->name, "");
            for (const auto& [name, those] : {std::pair("on", &on), {"off", &off}}) {
                Json::Node array(rapidjson::kArrayType);
                object.append(array, *those);
                object.add(object.root, name, std::move(array));
            }
            return jsonLine(object);
        }
        std::string what;
        for (const auto& [sign, those] : {std::pair(" +", &on), {" -", &off}}) {
            for (const std::string& app : *those) {
                what += sign + escaped(app);
            }
        }
        if (!parsed) {
            what += " (not a list)";
        } else if (what.empty()) {
            what = " (no app changed)";
        }
        return textLine(event, what.substr(1));
    }

    static std::string textLine(const Event& event, const std::string& what)
    {
        return textOf(event.time, false) + "  " + styled(Style::Name, event.setting->name) + "  " + what + "\n";
    }

    static void addTime(Json& object, const Event& event)
    {
        object.add(object.root, "time", textOf(event.time, true), "");
    }

    std::string jsonLine(const Json& object)
    {
        isComplete = isComplete && object.isComplete();
        return object.text(Json::Layout::OneLine);
    }
};

// Those that a name, a key or a pattern stands for and that can be watched.
std::vector<const Setting*> watchableLike(const std::string& pattern)
{
    std::vector<const Setting*> found = settingsLike(pattern);
    const auto isNamed = [&](const Setting* setting) { return setting->isCalled(pattern); };
    const auto exact = std::find_if(found.begin(), found.end(), isNamed);
    if (exact != found.end()) {
        found = {*exact};
    }
    if (found.empty()) {
        found = {&findSetting(pattern)};
    }
    const auto last =
        std::remove_if(found.begin(), found.end(), [](const Setting* each) { return !each->watchable(); });
    found.erase(last, found.end());
    if (found.empty()) {
        std::vector<std::string> watchable;
        for (const Setting* each : watchableLike("")) {
            watchable.emplace_back(each->name);
        }
        throw UsageError(pattern + " cannot be watched; these can: " + joined(watchable, ", "));
    }
    return found;
}

// Each once, in the order of the catalogue.
std::vector<const Setting*> settingsToWatch(const std::vector<std::string>& patterns)
{
    std::set<const Setting*> settings;
    for (const std::string& pattern : patterns.empty() ? std::vector<std::string>{""} : patterns) {
        const std::vector<const Setting*> found = watchableLike(pattern);
        settings.insert(found.begin(), found.end());
    }
    return {settings.begin(), settings.end()};
}

}  // namespace

int watch(const WatchOptions& options)
{
    const std::vector<const Setting*> settings = settingsToWatch(options.patterns);
    std::optional<Value> until;
    if (options.until) {
        if (settings.size() != 1) {
            throw UsageError("--until needs the name of one setting");
        }
        until = parseValue(*settings[0], *options.until);
    }
    Printer printer{options.json, options.diff, {}};
    if (options.diff && !options.initial) {
        // Read before subscribing: what changes in between is then part of the first difference.
        const std::optional<Value> text = read(findSetting("ZOLConcurrentAppList")).value;
        printer.apps = appsThatAreOn(text ? toText(*text) : "").value_or(Apps());
    }
    onDeliveryReport(onReport);
    for (const Setting* setting : settings) {
        subscribe(*setting);
    }
    std::vector<Event> present;  // read after subscribing, so that no change is missed in between
    for (const Setting* setting : settings) {
        const std::optional<Value> value = options.initial || until ? read(*setting).value : std::nullopt;
        if (value && (options.initial || value == until)) {
            present.push_back({Clock::now(), setting, *value, "", 0});
        }
    }
    std::cerr << "watching " + std::to_string(settings.size()) + (settings.size() == 1 ? " setting\n" : " settings\n");

    std::optional<Deadline> deadline;
    if (options.timeout) {
        const std::chrono::duration<double> limit(*options.timeout);
        deadline = Deadline::clock::now() + std::chrono::ceil<Deadline::duration>(limit);
    }
    for (const Event& event : present) {
        print(printer.line(event));
    }
    bool isReached = until && !present.empty() && present.back().value == *until;
    std::size_t seen = 0;
    while (!isReached) {
        const std::optional<Event> event = take(deadline);
        if (!event && until) {
            throw Failure("timed out after " + std::to_string(seen) + " changes to other values");
        }
        if (!event && options.count != 0) {
            throw Failure("timed out after " + std::to_string(seen) + " of " + std::to_string(options.count) +
                          " changes");
        }
        if (!event) {
            break;
        }
        print(printer.line(*event));
        if (event->setting != nullptr) {
            ++seen;
            isReached = seen == options.count || event->value == until;
        }
    }
    return printer.isComplete ? 0 : kExitFailed;
}

}  // namespace zolctl
