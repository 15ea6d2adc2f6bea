// Load: load SECONDS WORKERS. Every worker writes and watches all topics, and every second a random one is killed and
// replaced. At the end each worker that lives must have seen every text whole, the writes of each writer in order and
// without a gap, and the last value of each key; and its memory and threads must be what they were.
//
// The store is the one that the environment gives, the log is expected in the file that ZOL_DLOG names.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vconf.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ZOLSystemDataNotify.h"
#include "ZOLVconfKeys.h"

namespace {

namespace key = ZOLVconfKey;

constexpr std::array<const char*, 7> kTexts = {
    key::ZOLConcurrentAppList, key::WebAppUninstall,          key::OSDCountry,   key::ZOLSituationalHintSupported,
    key::ZOLLanguage,          key::ZOLDefaultAssistantAppid, key::WebAppInstall};
constexpr std::array<const char*, 4> kNumbers = {key::DravixResetCount, key::ServiceResetCount, key::FactoryResetCount,
                                                 key::BackgroundVolume};
constexpr std::array<const char*, 2> kSwitches = {key::ZOLActivated, key::ZOLMultipleMode};
constexpr unsigned kCounterBits = 20;  // of a number; the writer's number is above them
constexpr unsigned kMaxWriters = 1U << (31 - kCounterBits);

std::atomic<bool> stopWriting{false};

// "writer counter filler end": a tear would show.
std::string textOf(unsigned writer, unsigned counter)
{
    const std::string head = std::to_string(writer) + " " + std::to_string(counter) + " ";
    return head + std::string(counter % 5000, static_cast<char>('a' + counter % 26)) + " end";
}

struct Watched {
    std::string last;
    std::map<unsigned, unsigned> counters;  // by writer
};
std::mutex watchedLock;
std::map<const char*, Watched>& watched = *new std::map<const char*, Watched>;  // callbacks come until the end
unsigned torn = 0;
unsigned disorder = 0;
unsigned gaps = 0;
unsigned long received = 0;

void count(Watched& topic, unsigned writer, unsigned counter)
{
    const auto [known, first] = topic.counters.emplace(writer, counter);
    if (!first) {
        disorder += counter <= known->second ? 1 : 0;
        gaps += counter > known->second + 1 ? 1 : 0;
        known->second = counter;
    }
}

void onText(std::string value, void* topic)
{
    const std::lock_guard<std::mutex> guard(watchedLock);
    ++received;
    Watched& its = watched[static_cast<const char*>(topic)];
    unsigned writer = 0;
    unsigned counter = 0;
    if (value != "end") {
        if (std::sscanf(value.c_str(), "%u %u", &writer, &counter) != 2 || value != textOf(writer, counter)) {
            ++torn;
        } else {
            count(its, writer, counter);
        }
    }
    its.last = std::move(value);
}

void onNumber(int value, void* topic)
{
    const std::lock_guard<std::mutex> guard(watchedLock);
    ++received;
    Watched& its = watched[static_cast<const char*>(topic)];
    count(its, static_cast<unsigned>(value) >> kCounterBits, static_cast<unsigned>(value) % (1U << kCounterBits));
    its.last = std::to_string(value);
}

void onSwitch(bool value, void* topic)
{
    const std::lock_guard<std::mutex> guard(watchedLock);
    ++received;
    watched[static_cast<const char*>(topic)].last = value ? "1" : "0";
}

void watchAll()
{
    using Notify = ZOLSystemDataNotify;
    const auto data = [](const char* topic) { return const_cast<char*>(topic); };
    const int registered = Notify::RegisterZOLConcurrentAppListCallback(onText, data(kTexts[0])) +
                           Notify::RegisterWebAppUninstallCallback(onText, data(kTexts[1])) +
                           Notify::RegisterOSDCountryCallback(onText, data(kTexts[2])) +
                           Notify::RegisterZOLSituationalHintSupportedCallback(onText, data(kTexts[3])) +
                           Notify::RegisterZOLLanguageCallback(onText, data(kTexts[4])) +
                           Notify::RegisterZOLDefaultAssistantAppidCallback(onText, data(kTexts[5])) +
                           Notify::RegisterWebAppInstallCallback(onText, data(kTexts[6])) +
                           Notify::RegisterDravixResetCountCallback(onNumber, data(kNumbers[0])) +
                           Notify::RegisterServiceResetCountCallback(onNumber, data(kNumbers[1])) +
                           Notify::RegisterFactoryResetCountCallback(onNumber, data(kNumbers[2])) +
                           Notify::RegisterBackgroundVolumeCallback(onNumber, data(kNumbers[3])) +
                           Notify::RegisterZOLActivatedCallback(onSwitch, data(kSwitches[0])) +
                           Notify::RegisterZOLMultipleModeCallback(onSwitch, data(kSwitches[1]));
    if (registered != 13) {
        std::exit(2);
    }
}

// A figure of /proc/self/status.
long statusOf(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(name + ":", 0) == 0) {
            return std::stol(line.substr(name.size() + 1));
        }
    }
    return -1;
}

std::string stored(const char* topic)
{
    if (std::find(kTexts.begin(), kTexts.end(), topic) != kTexts.end()) {
        char* text = vconf_get_str(topic);
        std::string result = text == nullptr ? "(none)" : text;
        std::free(text);
        return result;
    }
    const bool isNumber = std::find(kNumbers.begin(), kNumbers.end(), topic) != kNumbers.end();
    int number = 0;
    const int code = isNumber ? vconf_get_int(topic, &number) : vconf_get_bool(topic, &number);
    return code == 0 ? std::to_string(number) : "(none)";
}

int work(unsigned writer)
{
    signal(SIGTERM, [](int) { stopWriting = true; });
    watchAll();
    long memoryBefore = 0;
    long threadsBefore = 0;
    for (unsigned counter = 1; !stopWriting; ++counter) {
        int refused = 0;
        for (const char* topic : kTexts) {
            refused += vconf_set_str(topic, textOf(writer, counter).c_str());
        }
        for (const char* topic : kNumbers) {
            refused += vconf_set_int(topic, static_cast<int>((writer << kCounterBits) + counter));
        }
        for (const char* topic : kSwitches) {
            refused += vconf_set_bool(topic, static_cast<int>(counter % 2));
        }
        if (refused != 0) {
            return 3;
        }
        if (counter == 100) {
            memoryBefore = statusOf("RssAnon");
            threadsBefore = statusOf("Threads");
        }
    }
    // The driver writes "end" to a key of each store when all have stopped.
    for (int waits = 0;; ++waits) {
        if (waits == 6000) {
            std::printf("worker %4u was not notified of the end\n", writer);
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const std::lock_guard<std::mutex> guard(watchedLock);
        if (watched[key::ZOLLanguage].last == "end" && watched[key::WebAppInstall].last == "end") {
            break;
        }
    }
    const long growth = memoryBefore == 0 ? 0 : statusOf("RssAnon") - memoryBefore;
    const bool sameThreads = memoryBefore == 0 || statusOf("Threads") == threadsBefore;
    const std::lock_guard<std::mutex> guard(watchedLock);
    unsigned stale = 0;
    for (const auto& [topic, its] : watched) {
        stale += its.last == stored(topic) ? 0 : 1;
    }
    std::printf("worker %4u: received %8lu, torn %u, out of order %u, gaps %u, stale %u, memory %+ld KiB, threads %s\n",
                writer, received, torn, disorder, gaps, stale, growth, sameThreads ? "the same" : "changed");
    const bool fellBehind = gaps > 0;  // the script looks for the log line that must go with it
    return torn + disorder + stale > 0 || growth > 4096 || !sameThreads ? 1 : fellBehind ? 4 : 0;
}

}  // namespace

int main(int count, char** arguments)
{
    if (count != 3) {
        std::fprintf(stderr, "usage: load SECONDS WORKERS\n");
        return 2;
    }
    const int seconds = std::atoi(arguments[1]);
    unsigned next = 1;
    const auto start = [&next] {
        std::fflush(nullptr);
        const unsigned writer = next++;
        const pid_t pid = writer < kMaxWriters ? fork() : -1;
        if (pid == 0) {
            std::exit(work(writer));
        }
        return pid;
    };
    std::vector<pid_t> workers;
    for (int i = 0; i < std::atoi(arguments[2]); ++i) {
        workers.push_back(start());
    }
    std::mt19937 random(std::random_device{}());
    int kills = 0;
    for (; kills < seconds; ++kills) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500 + random() % 1000));
        pid_t& victim = workers[random() % workers.size()];
        kill(victim, SIGKILL);
        int status = 0;
        waitpid(victim, &status, 0);
        if (!WIFSIGNALED(status)) {
            std::printf("a worker ended by itself with status %x\n", static_cast<unsigned>(status));
            return 1;
        }
        victim = start();
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));  // the last replacement subscribes
    for (const pid_t worker : workers) {
        kill(worker, SIGTERM);
    }
    std::this_thread::sleep_for(std::chrono::seconds(2));  // all have finished their last write
    if (vconf_set_str(key::ZOLLanguage, "end") != 0 || vconf_set_str(key::WebAppInstall, "end") != 0) {
        return 1;
    }
    int failed = 0;
    int fellBehind = 0;
    for (const pid_t worker : workers) {
        int status = 0;
        waitpid(worker, &status, 0);
        const bool behind = WIFEXITED(status) && WEXITSTATUS(status) == 4;
        fellBehind += behind ? 1 : 0;
        failed += status == 0 || behind ? 0 : 1;
    }
    std::printf("%d kills, %zu survivors, %d failed, %d with gaps\n", kills, workers.size(), failed, fellBehind);
    return failed > 0 ? 1 : fellBehind > 0 ? 4 : 0;
}
