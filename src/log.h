// The frame of every log line: "file: function[line]\t message", all at the platform's error priority so that a TV's
// release builds keep them. Used inside the call: dlog_print(ZOL_LINE("key[%s] Value [%s]"), key, value).
// The file is the one that contains the line, so write log lines in source files, not in headers.
#ifndef ZOL_SRC_LOG_H
#define ZOL_SRC_LOG_H

#include <dlog.h>

#include <cstddef>
#include <string_view>
#include <type_traits>

namespace zol {

// The number of characters before the file's name in a path; 0 without a slash.
constexpr std::size_t folderSize(std::string_view path) { return path.rfind('/') + 1; }

}  // namespace zol

// The constant makes the compiler find the name once, instead of every call.
#define ZOL_FILE_NAME &__FILE__[std::integral_constant<std::size_t, zol::folderSize(__FILE__)>::value]
#define ZOL_LINE_FRAME(function, text) \
    DLOG_ERROR, "libZOL", "%s: %s[%d]\t " text "\n", ZOL_FILE_NAME, function, __LINE__

// A line with the name of the function that writes it.
#define ZOL_LINE(message) ZOL_LINE_FRAME(__func__, "DLOG_ERROR \"" message "\"")
// A line of shared code, with the name of the operation it serves.
#define ZOL_LINE_OF(function, message) ZOL_LINE_FRAME(function, "DLOG_ERROR \"" message "\"")
// A line without the word before the message.
#define ZOL_BARE_LINE(message) ZOL_LINE_FRAME(__func__, "\"" message "\"")

#endif
