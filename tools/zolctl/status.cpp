#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "commands.h"
#include "output.h"
#include "platform.h"
#include "settings.h"

namespace fs = std::filesystem;

namespace zolctl {
namespace {

// What cannot be looked at, because it is another user's or has ended meanwhile, is left out.
template <class Function>
void forEachIn(const fs::path& folder, Function function)
{
    std::error_code error;
    for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
        function(at->path());
    }
}

// In KiB, on the disk.
std::uintmax_t sizeOf(const fs::path& folder)
{
    std::uintmax_t blocks = 0;  // of 512 bytes
    forEachIn(folder, [&](const fs::path& file) {
        struct stat status {};
        blocks += lstat(file.c_str(), &status) == 0 ? static_cast<std::uintmax_t>(status.st_blocks) : 0;
    });
    return (blocks + 1) / 2;
}

// The other processes that have a file in that folder open.
std::string usersOf(const fs::path& folder)
{
    std::error_code error;
    const fs::path canonical = fs::canonical(folder, error);
    std::string users;
    forEachIn("/proc", [&](const fs::path& process) {
        const std::string id = process.filename();
        bool uses = false;
        if (std::isdigit(static_cast<unsigned char>(id[0])) != 0 && id != std::to_string(getpid())) {
            forEachIn(process / "fd", [&](const fs::path& file) {
                uses = uses || fs::read_symlink(file, error).parent_path() == canonical;
            });
        }
        if (uses) {
            std::string name;
            std::getline(std::ifstream(process / "comm"), name);
            users += (users.empty() ? "" : ", ") + id + " (" + escaped(name) + ")";
        }
    });
    return users.empty() ? "only this one" : users;
}

// One half of the store: the settings whose keys begin with "memory/", or all others.
bool printHalf(const char* title, bool isVolatile)
{
    std::string text = std::string(title) + "\n";
    try {
        std::size_t all = 0;
        std::size_t withValue = 0;
        std::string folder;
        for (const Setting& setting : allSettings()) {
            if ((std::string(setting.key).rfind("memory/", 0) == 0) == isVolatile) {
                folder = all++ == 0 ? checkStore(setting.key) : folder;
                withValue += read(setting) ? 1 : 0;
            }
        }
        text += "  folder     " + (folder.empty() ? "not known on this platform" : escaped(folder)) +
                "\n  state      can be used\n";
        if (!folder.empty()) {
            text += "  size       " + std::to_string(sizeOf(folder)) + " KiB\n  processes  " + usersOf(folder) + "\n";
        }
        print(text + "  settings   " + std::to_string(withValue) + " of " + std::to_string(all) + " have a value\n");
        return true;
    } catch (const NoStore& error) {
        print(text + "  state      " + escaped(error.what()) + "\n");
        return false;
    }
}

}  // namespace

int status(const std::string& logTarget)
{
    const bool lasting = printHalf("permanent settings", false);
    const bool inMemory = printHalf("settings under memory/, lost at restart", true);
    print("log of programs\n  target     " + escaped(logTarget) + "\n");
    return lasting && inMemory ? 0 : kExitNoStore;
}

}  // namespace zolctl
