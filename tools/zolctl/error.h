#ifndef ZOLCTL_ERROR_H
#define ZOLCTL_ERROR_H

#include <stdexcept>
#include <string>

namespace zolctl {

constexpr int kExitFailed = 1;   // something could not be read, written or watched
constexpr int kExitUsage = 2;    // the command line or a file is wrong
constexpr int kExitNoStore = 3;  // the store cannot be used

/// What ends the tool; the message says what to do.
struct Error : std::runtime_error {
    Error(const std::string& message, int code) : runtime_error(message), exitCode(code) {}
    int exitCode;
};
template <int code>
struct ErrorOf : Error {
    explicit ErrorOf(const std::string& message) : Error(message, code) {}
};
using Failure = ErrorOf<kExitFailed>;
using UsageError = ErrorOf<kExitUsage>;
using NoStore = ErrorOf<kExitNoStore>;

}  // namespace zolctl

#endif
