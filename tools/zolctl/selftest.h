#ifndef ZOLCTL_SELFTEST_H
#define ZOLCTL_SELFTEST_H

namespace zolctl {

/// Checks what the library relies on against the platform underneath and prints one line a check. Uses scratch keys
/// only, and sets them back at the end, also when a signal ends it.
/// @param timeout  How many seconds each check may take.
/// @return the exit code; throws Failure.
int selftest(double timeout);

}  // namespace zolctl

#endif
