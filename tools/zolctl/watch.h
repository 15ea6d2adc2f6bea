#ifndef ZOLCTL_WATCH_H
#define ZOLCTL_WATCH_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace zolctl {

struct WatchOptions {
    std::vector<std::string> names;  // empty for everything that can be watched
    bool json = false;
    bool diff = false;              // of the app list, print the apps that changed
    std::size_t count = 0;          // end after that many changes; 0 for no end
    std::optional<double> timeout;  // end after that many seconds
};

/// Prints every change until a signal, the count, the timeout or the end of whoever reads the output.
/// @return the exit code; throws UsageError or Failure.
int watch(const WatchOptions& options);

}  // namespace zolctl

#endif
