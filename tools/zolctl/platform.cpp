// Two of the platform's functions stand here, in front of the platform's own, which they call: a program's functions
// come before those of its libraries. So the tool learns whether the platform took a text, where the library's setter
// says yes either way, and why the platform refused something, which stands in the log alone.

#include "platform.h"

#include <dlfcn.h>
#include <dlog.h>
#include <unistd.h>
#include <vconf.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <system_error>
#include <vector>

#include "output.h"
#include "settings.h"

// Only the desk platform has it.
extern "C" [[gnu::weak]] char* vconf_desk_folder(const char* key);

namespace fs = std::filesystem;

namespace zolctl {
namespace {

thread_local std::string lastLine;
thread_local TextWrite lastWrite{0, {}};
std::atomic<DeliveryReport> deliveryReport{nullptr};

using Text = std::unique_ptr<char, decltype(&std::free)>;

Text folderOf(const char* key) { return {isDesk() ? vconf_desk_folder(key) : nullptr, std::free}; }

// "4711 (name)" or "4711 (name, stopped)"; an empty text if the process has ended.
std::string describeProcess(const fs::path& process)
{
    std::string stat;
    std::getline(std::ifstream(process / "stat"), stat, '\0');
    const std::size_t open = stat.find('(');
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size()) {
        return "";
    }
    const bool isStopped = stat[close + 2] == 'T' || stat[close + 2] == 't';
    return process.filename().string() + " (" + stat.substr(open + 1, close - open - 1) +
           (isStopped ? ", stopped)" : ")");
}

template <class Function>
Function* next(const char* name)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): dlsym has one type for all functions
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

bool isDesk() { return vconf_desk_folder != nullptr; }
std::string platformReason() { return lastLine.empty() ? "the platform's log may tell why" : lastLine; }
void onDeliveryReport(DeliveryReport function) { deliveryReport = function; }
const TextWrite& lastTextWrite() { return lastWrite; }

std::string checkStore(const char* key)
{
    const Text folder = folderOf(key);
    if (folder) {
        return folder.get();
    }
    // On a TV, subscribe to find out: that is possible even for a key without a value.
    const vconf_callback_fn ignored = [](keynode_t*, void*) {};
    if (isDesk() || vconf_notify_key_changed(key, ignored, nullptr) != 0) {
        throw NoStore("the store cannot be used: " + platformReason());
    }
    vconf_ignore_key_changed(key, ignored);
    return "";
}

std::string usersOf(const std::string& folder)
{
    // What cannot be looked at, because it is another user's or has ended meanwhile, is left out.
    std::error_code error;
    const fs::path data = fs::path(folder) / "data.mdb";
    std::vector<std::string> users;
    for (const fs::directory_entry& process : fs::directory_iterator("/proc", error)) {
        const std::string id = process.path().filename();
        if (std::isdigit(static_cast<unsigned char>(id[0])) == 0 || id == std::to_string(getpid())) {
            continue;
        }
        for (fs::directory_iterator file(process.path() / "fd", error), end; file != end; file.increment(error)) {
            if (fs::equivalent(file->path(), data, error)) {
                users.push_back(describeProcess(process));
                break;
            }
        }
    }
    return users.empty() ? "none but this one" : joined(users, ", ");
}

WaitNotice::WaitNotice(const char* key)
    : thread_([key, over = over_.get_future()] {
          if (over.wait_for(std::chrono::seconds(2)) == std::future_status::ready) {
              return;
          }
          const Text folder = folderOf(key);
          printError(folder ? "still waiting for the store; processes that use it: " + usersOf(folder.get())
                            : "still waiting for the platform");
      })
{
}

WaitNotice::~WaitNotice()
{
    over_.set_value();
    thread_.join();
}

}  // namespace zolctl

using namespace zolctl;

[[gnu::visibility("default")]] int vconf_set_str(const char* key, const char* value)
{
    static auto* const platforms = next<decltype(vconf_set_str)>("vconf_set_str");
    lastWrite = {platforms(key, value), value == nullptr ? "" : value};
    return lastWrite.result;
}

[[gnu::visibility("default")]] int dlog_print(log_priority priority, const char* tag, const char* format, ...)
{
    static auto* const platforms = next<decltype(dlog_print)>("dlog_print");
    const int savedErrno = errno;
    char* made = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&made, format, arguments);
    va_end(arguments);
    if (length < 0) {
        return -1;
    }
    const Text message(made, std::free);
    if (std::strcmp(tag, "libZOL") != 0) {
        try {
            const char* const colon = std::strncmp(made, "vconf_", 6) == 0 ? std::strstr(made, ": ") : nullptr;
            const char* const text = colon == nullptr ? made : colon + 2;  // which function it was helps nobody here
            lastLine.assign(text, std::strcspn(text, "\n"));
            const DeliveryReport report = deliveryReport.load();
            const std::size_t end = lastLine.find(" writes were dropped");
            if (report != nullptr && end != std::string::npos) {
                const std::size_t space = lastLine.rfind(' ', end - 1);
                report("", std::strtoull(&lastLine[space + 1], nullptr, 10));
            } else if (report != nullptr && lastLine.rfind("delivery: ", 0) == 0) {
                report(lastLine.substr(10), 0);
            }
        } catch (const std::bad_alloc&) {  // a line must never end its program
        }
    }
    const int result = platforms(priority, tag, "%s", made);
    errno = savedErrno;
    return result;
}
