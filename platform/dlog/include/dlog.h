/// @file
/// What the library expects of the platform's log service. On a TV the platform supplies it; on a desk the stand-in
/// beside this header does. A header of the platform's own must declare the same names.
#ifndef DLOG_H
#define DLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/// How much a line matters. The library writes every line with DLOG_ERROR, whose value must be 6.
typedef enum { DLOG_VERBOSE = 2, DLOG_DEBUG, DLOG_INFO, DLOG_WARN, DLOG_ERROR = 6, DLOG_FATAL } log_priority;

/// Writes one line to the log.
/// @param priority  How much it matters.
/// @param tag       Whose line it is, NUL-terminated.
/// @param format    As for printf, with its arguments. The library's own formats end in a newline.
/// @return The number of bytes written, or a negative number when the line could not be written. The library does not
///         look at it.
/// Nothing is kept of the arguments after the call. Any number of threads may call at once, also from a handler of a
/// changed key. A line must never stop or end its program.
///
/// The stand-in writes to where the environment variable ZOL_DLOG says when the first line is written: "stderr" (also
/// when it is not set), "off", or the path of a file to append to. Lines do not mix in files that are open for
/// appending, nor elsewhere up to PIPE_BUF bytes. A line that cannot be written within half a second is lost, and so
/// are those after it while that is so; the next one that can be written comes after one that counts them.
int dlog_print(log_priority priority, const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
