// Two of the platform's functions stand here, in front of the platform's own, which they call: a program's functions
// come before those of its libraries. So the tool learns whether the platform took a text, where the library's setter
// says yes either way, and why the platform refused something, which stands in the log alone.

#include "platform.h"

#include <dlfcn.h>
#include <dlog.h>
#include <vconf.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "settings.h"

// Only the desk platform has it.
extern "C" [[gnu::weak]] char* vconf_desk_folder(const char* key);

namespace zolctl {
namespace {

thread_local std::string lastLine;
thread_local TextWrite lastWrite{0, {}};
std::atomic<void (*)(const std::string&)> lineWatcher{nullptr};

using Text = std::unique_ptr<char, decltype(&std::free)>;

template <class Function>
Function* next(const char* name)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): dlsym has one type for all functions
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

std::string platformReason() { return lastLine.empty() ? "the platform's log may tell why" : lastLine; }
void watchPlatformLog(void (*function)(const std::string& line)) { lineWatcher = function; }
const TextWrite& lastTextWrite() { return lastWrite; }

std::string checkStore(const char* key)
{
    const bool isDesk = vconf_desk_folder != nullptr;
    const Text folder(isDesk ? vconf_desk_folder(key) : nullptr, std::free);
    // On a TV a subscription tells: a key without a value can be subscribed to as well.
    const vconf_callback_fn ignored = [](keynode_t*, void*) {};
    if (isDesk ? !folder : vconf_notify_key_changed(key, ignored, nullptr) != 0) {
        throw NoStore("the store cannot be used: " + platformReason());
    }
    isDesk ? 0 : vconf_ignore_key_changed(key, ignored);
    return folder ? folder.get() : "";
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
            if (auto* const watcher = lineWatcher.load()) {
                watcher(lastLine);
            }
        } catch (const std::bad_alloc&) {  // a line must never end its program
        }
    }
    const int result = platforms(priority, tag, "%s", made);
    errno = savedErrno;
    return result;
}
