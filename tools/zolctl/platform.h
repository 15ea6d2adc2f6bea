// What the platform knows and the library does not pass on.
#ifndef ZOLCTL_PLATFORM_H
#define ZOLCTL_PLATFORM_H

#include <cstdint>
#include <future>
#include <string>
#include <thread>

namespace zolctl {

/// Whether this is the desk platform.
bool isDesk();

/// Why the platform refused this thread's last call, as far as it says so.
std::string platformReason();

/// A report about the delivery of changes to this process.
/// @param problem  Why changes can no longer be delivered, or an empty text if writes were dropped.
/// @param dropped  How many writes, of any key, were dropped because this process fell behind.
using DeliveryReport = void (*)(const std::string& problem, std::uint64_t dropped);
/// Calls the function on the thread that delivers.
void onDeliveryReport(DeliveryReport function);

/// The last vconf_set_str of this thread, whoever called it.
struct TextWrite {
    int result;
    std::string text;
};
const TextWrite& lastTextWrite();

/// The folder of the store that holds the key, or an empty text where the platform does not say.
/// @throws NoStore, with the platform's reason, when the store cannot be used.
std::string checkStore(const char* key);

/// The other processes that have the store in that folder open.
std::string usersOf(const std::string& folder);

/// If it exists for more than two seconds, a line on standard error says that the store keeps this command waiting.
class WaitNotice {
public:
    explicit WaitNotice(const char* key);
    ~WaitNotice();
    WaitNotice(const WaitNotice&) = delete;
    WaitNotice& operator=(const WaitNotice&) = delete;

private:
    std::promise<void> over_;
    std::thread thread_;
};

}  // namespace zolctl

#endif
