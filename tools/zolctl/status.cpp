#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "commands.h"
#include "output.h"
#include "platform.h"
#include "settings.h"

namespace fs = std::filesystem;

namespace zolctl {
namespace {

// In KiB, on the disk.
std::uintmax_t sizeOf(const fs::path& folder)
{
    std::uintmax_t blocks = 0;  // of 512 bytes
    std::error_code error;
    for (fs::directory_iterator file(folder, error), end; file != end; file.increment(error)) {
        struct stat status {};
        if (lstat(file->path().c_str(), &status) == 0) {
            blocks += static_cast<std::uintmax_t>(status.st_blocks);
        }
    }
    return (blocks + 1) / 2;
}

std::string describeFolder(const std::string& folder)
{
    if (folder.empty()) {
        return "  folder     not known on this platform\n";
    }
    return "  folder     " + escaped(folder) + "\n  size       " + std::to_string(sizeOf(folder)) +
           " KiB\n  processes  " + escaped(usersOf(folder)) + "\n";
}

std::string describeSettings(const std::vector<const Setting*>& settings)
{
    std::size_t withValue = 0;
    std::string others;
    for (const Setting* setting : settings) {
        const Reading reading = read(*setting);
        withValue += reading.value ? 1 : 0;
        if (!reading.otherType.empty()) {
            others += "; " + otherTypeMessage(*setting, reading);
        }
    }
    return "  settings   " + std::to_string(withValue) + " of " + std::to_string(settings.size()) + " have a value" +
           others + "\n";
}

bool printStore(const char* title, bool isVolatile)
{
    std::vector<const Setting*> settings;
    for (const Setting& setting : allSettings()) {
        if ((std::string(setting.key).rfind("memory/", 0) == 0) == isVolatile) {
            settings.push_back(&setting);
        }
    }
    std::string text;
    bool isUsable = true;
    try {
        const std::string folder = checkStore(settings.front()->key);
        text = "  state      can be used\n" + describeFolder(folder) + describeSettings(settings);
    } catch (const NoStore& error) {
        text = "  state      " + escaped(error.what()) + "\n";
        isUsable = false;
    }
    print(std::string(title) + "\n" + text);
    return isUsable;
}

// Where programs on the desk platform log with that ZOL_DLOG.
std::string logTarget(const std::string& log)
{
    if (log.empty() || log == "stderr") {
        return "standard error";
    }
    if (log == "off") {
        return "none";
    }
    // The reads above have created the file if that is possible.
    const int file = open(log.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (file < 0) {
        return "standard error, since " + log + " cannot be opened: " + std::strerror(errno);
    }
    close(file);
    return log;
}

}  // namespace

int status(const std::string& log)
{
    const bool persistentIsUsable = printStore("persistent store", false);
    const bool volatileIsUsable = printStore("volatile store, for keys under memory/; lost at restart", true);
    print("log of programs\n  target     " + (isDesk() ? escaped(logTarget(log)) : "not known on this platform") +
          "\n");
    return persistentIsUsable && volatileIsUsable ? 0 : kExitNoStore;
}

}  // namespace zolctl
