#ifndef ZOLCTL_ERROR_H
#define ZOLCTL_ERROR_H

#include <stdexcept>

namespace zolctl {

constexpr int kExitFailed = 1;  // something could not be read, written or watched
constexpr int kExitUsage = 2;   // the command line or a file is wrong

/// Something could not be read, written or watched; the message says what to do.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The command line or a file is wrong; the message says what to do.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace zolctl

#endif
