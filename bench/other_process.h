// Other processes: programs that are run, and one that is told of changes, with what is measured by it.
#ifndef ZOL_BENCH_OTHER_PROCESS_H
#define ZOL_BENCH_OTHER_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

/// Runs a program without its output and waits for it. Throws if it cannot be run or fails.
void runProgram(std::vector<const char*> arguments);

/// What the other process says of each change.
struct Told {
    std::int64_t time;    ///< of the callback, in nanoseconds of the machine's monotonic clock
    std::int64_t number;  ///< the new value
};

/// This program run again as a watcher; it ends with this object.
class Watcher {
public:
    /// Returns when the watcher has subscribed.
    explicit Watcher(const char* kind);
    ~Watcher();
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

    std::optional<Told> next(std::chrono::milliseconds patience) const;
    pid_t id() const { return id_; }

private:
    pid_t id_ = -1;
    int told_ = -1;
};

/// In the watcher: says which value it was told, and before that, with any number, that it has subscribed.
void tell(std::int64_t number);

/// Adds benchmarks of the time from the beginning of set(number) to the watcher's callback: the median and the 99th
/// percentile. Each write comes a while after the one before has arrived, because a process that has just run is told
/// sooner than one that has slept; the argument is that while in microseconds.
void addDelay(const char* name, const char* kind, const std::function<void(std::int64_t)>& set);

/// The peer, in gsettings.cpp.
void addPeer();
void watchPeer();

#endif
