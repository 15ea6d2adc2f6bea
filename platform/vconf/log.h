#ifndef VCONF_LOG_H
#define VCONF_LOG_H

#include <dlog.h>

#include <string>

namespace vconf {

inline void logLine(const char* function, const std::string& message)
{
    dlog_print(DLOG_ERROR, "VCONF", "%s: %s\n", function, message.c_str());
}

}  // namespace vconf

#endif
