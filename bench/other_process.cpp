#include "other_process.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::chrono::seconds kPatience{10};

std::int64_t now() { return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1); }

void measureDelay(benchmark::State& state, const char* kind, const std::function<void(std::int64_t)>& set)
{
    set(0);
    const Watcher watcher(kind);
    std::vector<double> delays;
    std::int64_t number = 0;
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::microseconds(state.range()));
        const std::int64_t start = now();
        set(++number);
        const auto told = watcher.next(kPatience);
        if (!told || told->number != number) {
            state.SkipWithError("a change was not delivered");
            return;
        }
        delays.push_back(static_cast<double>(told->time - start));
        state.SetIterationTime(delays.back() / 1e9);
    }
    std::sort(delays.begin(), delays.end());
    state.counters["median"] = delays[delays.size() / 2];
    state.counters["p99"] = delays[delays.size() * 99 / 100];
}

}  // namespace

void addDelay(const char* name, const char* kind, const std::function<void(std::int64_t)>& set)
{
    for (const int pause : {200, 20000}) {
        benchmark::RegisterBenchmark(name, [=](benchmark::State& state) { measureDelay(state, kind, set); })
            ->Arg(pause)
            ->Iterations(pause < 1000 ? 2000 : 300)
            ->UseManualTime();
    }
}

void runProgram(std::vector<const char*> arguments)
{
    const std::string name = arguments[0];
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t id = -1;
    int status =
        posix_spawnp(&id, name.c_str(), &actions, nullptr, const_cast<char* const*>(arguments.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (status != 0 || waitpid(id, &status, 0) != id || status != 0) {
        throw std::runtime_error(name + " fails; see its message, or install it if there is none");
    }
}

Watcher::Watcher(const char* kind)
{
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        throw std::runtime_error("cannot make a pipe");
    }
    told_ = ends[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    posix_spawn_file_actions_addclose(&actions, ends[1]);
    const std::array<const char*, 4> arguments{"bench_store", "--watch", kind, nullptr};
    const int failed =
        posix_spawn(&id_, "/proc/self/exe", &actions, nullptr, const_cast<char* const*>(arguments.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (failed != 0 || !next(kPatience)) {
        throw std::runtime_error("the watcher does not start");
    }
}

Watcher::~Watcher()
{
    kill(id_, SIGKILL);
    waitpid(id_, nullptr, 0);
    close(told_);
}

std::optional<Told> Watcher::next(std::chrono::milliseconds patience) const
{
    pollfd ready{told_, POLLIN, 0};
    Told told{};
    if (poll(&ready, 1, static_cast<int>(patience.count())) != 1 || read(told_, &told, sizeof told) != sizeof told) {
        return std::nullopt;
    }
    return told;
}

void tell(std::int64_t number)
{
    const Told told{now(), number};
    if (write(STDOUT_FILENO, &told, sizeof told) != sizeof told) {
        _exit(1);
    }
}
