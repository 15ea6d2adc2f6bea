// What the platform tells and the library does not pass on.
#ifndef ZOLCTL_PLATFORM_H
#define ZOLCTL_PLATFORM_H

#include <string>

namespace zolctl {

/// The last line that the platform wrote to the log on this thread.
std::string platformReason();

/// Calls that function with each line that the platform writes from now on, on the thread that writes it.
void watchPlatformLog(void (*function)(const std::string& line));

/// The last vconf_set_str of this thread, whoever called it.
struct TextWrite {
    int result;
    std::string text;
};
const TextWrite& lastTextWrite();

/// The folder of the store that holds the key, or an empty text where the platform does not tell it.
/// @throws NoStore, with the platform's reason, when the store cannot be used.
std::string checkStore(const char* key);

}  // namespace zolctl

#endif
