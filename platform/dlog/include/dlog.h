/// @file
/// What the library expects of the platform's log service. A TV has its own; elsewhere the desk platform beside this
/// header takes its place. A platform's own header must declare the same names.
#ifndef DLOG_H
#define DLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/// The priority of a line. The library writes every line with DLOG_ERROR, whose value must be 6.
typedef enum { DLOG_VERBOSE = 2, DLOG_DEBUG, DLOG_INFO, DLOG_WARN, DLOG_ERROR = 6, DLOG_FATAL } log_priority;

/// Writes one line to the log.
/// @param priority  The line's priority.
/// @param tag       The writer's name, NUL-terminated.
/// @param format    As for printf, with its arguments. The library's formats end in a newline.
/// @return The number of bytes written, or a negative number on failure; the library ignores it.
///
/// Several threads may call at once, also in handlers. Arguments are not kept. A line must never end its program.
///
/// The desk platform writes to the target that the environment variable ZOL_DLOG names at the first line: "stderr" (the
/// default), "off", or the path of a file to append to. Lines do not mix in files opened for appending, nor elsewhere
/// up to PIPE_BUF bytes. A line that cannot be written within two seconds is dropped. While that
/// lasts, so are the following ones; then one line says how many lines were lost.
int dlog_print(log_priority priority, const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
