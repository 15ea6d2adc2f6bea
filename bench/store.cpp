// The desk platform's store: reads, writes and delivery to another process. The peer's side of each row is in
// gsettings.cpp.

#include <sys/prctl.h>
#include <unistd.h>
#include <vconf.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "ZOLSystemDataNotify.h"
#include "ZOLTypedKeys.h"
#include "ZOLVconfKeys.h"
#include "other_process.h"
#include "repeat.h"

namespace {

using std::chrono::seconds;

constexpr const char* kVolatile = ZOLVconfKey::WebAppInstall;
constexpr const char* kPersistent = ZOLVconfKey::OSDCountry;
constexpr const char* kText = ZOLVconfKey::OSDLanguage;
constexpr const char* kNumber = ZOLVconfKey::BackgroundVolume;
constexpr const char* kFlag = ZOLVconfKey::ZOLActivated;

void require(bool done)
{
    if (!done) {
        throw std::runtime_error("the store refuses; run with ZOL_DLOG=stderr to see why");
    }
}

void set(const char* key, std::int64_t number) { require(vconf_set_str(key, std::to_string(number).c_str()) == 0); }

void addAccesses()
{
    require(vconf_set_str(kText, "en-GB") == 0 && vconf_set_int(kNumber, 7) == 0 && vconf_set_bool(kFlag, 1) == 0);
    add("store: read a string/ours", [] {
        char* text = vconf_get_str(kText);
        benchmark::DoNotOptimize(text);
        std::free(text);
    });
    add("store: read an integer/ours",
        [value = 0]() mutable { benchmark::DoNotOptimize(vconf_get_int(kNumber, &value)); });
    add("store: read a boolean/ours",
        [value = 0]() mutable { benchmark::DoNotOptimize(vconf_get_bool(kFlag, &value)); });
    for (const char* key : kThreadKeys) {
        require(vconf_set_str(key, "a text that is copied to the heap") == 0);
    }
    addOnThreads("store: reads/ours", kThreadKeys,
                 [](const char* key) { return [key, value = std::string()]() mutable { getString(key, value); }; });
    // What threads share at the least: processors and the heap.
    addOnThreads("store: reads/peer", kThreadKeys,
                 [](const char* key) { return [key] { benchmark::DoNotOptimize(std::string(key)); }; });
#ifdef BENCH_ZOLCTL
    add("get, as a process/ours", [] { runProgram({BENCH_ZOLCTL, "get", "OSDLanguage"}); });
#endif
    add("volatile write/ours", [number = 0]() mutable { set(kVolatile, ++number); });
    add("persistent write/ours", [number = 0]() mutable { set(kPersistent, ++number); });
    addDelay("volatile set to callback/ours", "volatile", [](std::int64_t number) { set(kVolatile, number); });
    addDelay("persistent set to callback/ours", "persistent", [](std::int64_t number) { set(kPersistent, number); });
}

// Bursts that the store's journal of 4,096 writes holds; each is read back before the next.
void countWrongDeliveries(benchmark::State& state)
{
    constexpr std::int64_t kWrites = 100000;
    constexpr std::int64_t kBurst = 2000;
    const Watcher watcher("volatile");
    std::int64_t wrong = 0;
    for (auto _ : state) {
        for (std::int64_t first = 0; first < kWrites; first += kBurst) {
            for (std::int64_t i = first; i < first + kBurst; ++i) {
                set(kVolatile, i);
            }
            for (std::int64_t i = first; i < first + kBurst; ++i) {
                const auto told = watcher.next(seconds(5));
                wrong += !told || told->number != i ? 1 : 0;
            }
        }
    }
    wrong += watcher.next(seconds(1)) ? 1 : 0;  // a write was told twice
    state.counters["count"] = static_cast<double>(wrong);
}
BENCHMARK(countWrongDeliveries)->Name("wrong deliveries of 100,000/ours")->Iterations(1)->Repetitions(1);

std::string lineOf(const std::filesystem::path& file, std::string_view start)
{
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, start.size(), start) == 0) {
            return line.substr(start.size());
        }
    }
    throw std::runtime_error("no line " + std::string(start) + " in " + file.string());
}

int wakeUps(pid_t process)
{
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        if (lineOf(task.path() / "comm", "") == "vconf") {
            return std::stoi(lineOf(task.path() / "status", "voluntary_ctxt_switches:"));
        }
    }
    throw std::runtime_error("the watcher has no delivering thread");
}

void countIdleWakeUps(benchmark::State& state)
{
    const Watcher watcher("both");
    std::this_thread::sleep_for(seconds(1));
    const int before = wakeUps(watcher.id());
    for (auto _ : state) {
        std::this_thread::sleep_for(seconds(10));
    }
    state.counters["count"] = wakeUps(watcher.id()) - before;
}
BENCHMARK(countIdleWakeUps)->Name("wake-ups in 10 idle seconds/ours")->Iterations(1)->Repetitions(1);

int watch(std::string_view kind)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
#ifdef BENCH_SCHEMAS
    if (kind == "peer") {
        watchPeer();
    }
#endif
    const ZOLStringCallback tellNumber = [](std::string value, void*) { tell(std::stoll(value)); };
    if (kind != "persistent") {
        require(ZOLSystemDataNotify::RegisterWebAppInstallCallback(tellNumber, nullptr) == 1);
    }
    if (kind != "volatile") {
        require(ZOLSystemDataNotify::RegisterOSDCountryCallback(tellNumber, nullptr) == 1);
    }
    tell(0);
    for (;;) {
        pause();
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (std::getenv("ZOL_VCONF_DIR") == nullptr) {
        std::cerr << "bench_store writes to the store: set ZOL_VCONF_DIR to a new folder, or run scripts/bench\n";
        return 2;
    }
    try {
        if (argc == 3 && std::string_view(argv[1]) == "--watch") {
            return watch(argv[2]);
        }
        addAccesses();
#ifdef BENCH_SCHEMAS
        addPeer();
#endif
        benchmark::Initialize(&argc, argv);
        if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
            return 2;
        }
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& error) {
        std::cerr << "bench_store: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
