#ifndef VCONF_LOG_H
#define VCONF_LOG_H

#include <dlog.h>

namespace vconf {

// Allocates nothing, since it also tells of a lack of memory.
inline void logLine(const char* function, const char* message)
{
    dlog_print(DLOG_ERROR, "VCONF", "%s: %s\n", function, message);
}

}  // namespace vconf

#endif
