// The frame of every log line: "file: function[line]\t message", all at the platform's error priority so that a TV's
// release builds keep them. Used inside the call: dlog_print(ZOL_LINE("key[%s] Value [%s]"), key, value).
#ifndef ZOL_SRC_LOG_H
#define ZOL_SRC_LOG_H

#include <dlog.h>

namespace zol {

constexpr const char* baseName(const char* path)
{
    const char* base = path;
    for (; *path != '\0'; ++path) {
        if (*path == '/') {
            base = path + 1;
        }
    }
    return base;
}

constexpr const char* kSourceFile = baseName(__BASE_FILE__);

}  // namespace zol

// NOLINTBEGIN(cppcoreguidelines-macro-usage): the line number and the joined literals need macros.
#define ZOL_LINE_FRAME(function, text) \
    DLOG_ERROR, "libZOL", "%s: %s[%d]\t " text "\n", zol::kSourceFile, function, __LINE__

// A line under the name of the function that writes it.
#define ZOL_LINE(message) ZOL_LINE_FRAME(__func__, "DLOG_ERROR \"" message "\"")
// A line of shared code, under the name of the operation that it works for.
#define ZOL_LINE_OF(function, message) ZOL_LINE_FRAME(function, "DLOG_ERROR \"" message "\"")
// A line without the word before the message.
#define ZOL_BARE_LINE(message) ZOL_LINE_FRAME(__func__, "\"" message "\"")
// NOLINTEND(cppcoreguidelines-macro-usage)

#endif
