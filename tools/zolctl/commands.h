// What the tool does, one function a command. Each returns the exit code, or throws UsageError, Failure or NoStore.
#ifndef ZOLCTL_COMMANDS_H
#define ZOLCTL_COMMANDS_H

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace zolctl {

/// @param pattern  Part of a name or key, with the shell's wildcards; empty for all settings.
int list(const std::string& pattern, bool withKey, bool json);
int get(const std::vector<std::string>& names, bool json);
/// Writes through the library or, as the platform would, the key itself.
/// @param text  The value, or "-" for standard input.
int set(const std::string& name, const std::string& text, bool throughLibrary);
int describe(const std::vector<std::string>& names);
int dump();
/// @param path  The file, or "-" for standard input.
/// @param dry   Whether to print instead of writing.
int load(const std::string& path, bool dry);
/// @param log  The value of ZOL_DLOG, empty if it is not set.
int status(const std::string& log);

using Apps = std::set<std::string>;
/// The apps that are on in the text of the app list; nothing when it is not a list.
std::optional<Apps> appsThatAreOn(const std::string& text);
int listConcurrent(bool json);
int switchConcurrent(const std::vector<std::string>& apps, bool on);

struct WatchOptions {
    std::vector<std::string> patterns;  // empty for everything that can be watched
    bool json = false;
    bool diff = false;                 // of the app list, print the apps that changed
    bool initial = false;              // print the present values first
    std::size_t count = 0;             // end after that many changes; 0 for no end
    std::optional<std::string> until;  // end when the one setting has that value
    std::optional<double> timeout;     // end after that many seconds
};
/// Prints every change. The platform's thread is still running when this returns or throws: end the process then.
int watch(const WatchOptions& options);

/// Checks that the platform does what the library relies on, with scratch keys. It restores them at the end, also when
/// a signal ends it.
/// @param timeout  How many seconds each check may take.
int selftest(double timeout);

/// Prints what the last of the words can be completed to, one a line; the exit code is 1 when it is a file.
/// @param words  What follows the program's name; the last one may be empty.
int complete(const CLI::App& program, const std::vector<std::string>& words);

}  // namespace zolctl

#endif
