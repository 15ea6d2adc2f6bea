// The desk's log service: one line a call, written whole to standard error, to a file or nowhere.

#include <dlog.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

// Where the lines go. Opened by the first line and never closed, so that threads may still log while the process ends.
//
// Locks: `lineLock` lets one thread open the target, and keeps the lines of one process apart; the record lock on the
// file keeps apart those of several processes. A regular file opened for appending needs no lock for its lines; a pipe
// does, because it takes long lines in pieces.
struct Target {
    int fd = -1;
    bool needsLock = false;
};
std::atomic<const Target*> opened{nullptr};
pthread_mutex_t lineLock = PTHREAD_MUTEX_INITIALIZER;

// A child forked while another thread writes would find the lock taken for ever. This is set up while the library is
// loaded, before its users can set up theirs: what is set up first is called last, and users log with their locks held.
[[gnu::constructor]] void setUpFork()
{
    pthread_atfork([] { pthread_mutex_lock(&lineLock); }, [] { pthread_mutex_unlock(&lineLock); },
                   [] { pthread_mutex_unlock(&lineLock); });
}

const Target* openTarget()
{
    static Target target;
    const char* where = secure_getenv("ZOL_DLOG");
    if (where == nullptr || *where == '\0' || std::strcmp(where, "stderr") == 0) {
        target.fd = STDERR_FILENO;
    } else if (std::strcmp(where, "off") == 0) {
        return &target;
    } else {
        // Not waiting for somebody to read from a pipe.
        target.fd = open(where, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600);
        if (target.fd < 0) {
            dprintf(STDERR_FILENO, "ZOL_DLOG: cannot append to %s (%s); the log goes to standard error\n", where,
                    std::strerror(errno));
            target.fd = STDERR_FILENO;
        }
    }
    struct stat status {};
    target.needsLock = target.fd == STDERR_FILENO || fstat(target.fd, &status) != 0 || !S_ISREG(status.st_mode);
    return &target;
}

const Target& theTarget()
{
    const Target* target = opened.load(std::memory_order_acquire);
    if (target == nullptr) {
        pthread_mutex_lock(&lineLock);
        target = opened.load(std::memory_order_relaxed);
        if (target == nullptr) {
            target = openTarget();
            opened.store(target, std::memory_order_release);
        }
        pthread_mutex_unlock(&lineLock);
    }
    return *target;
}

bool writeAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0 && errno == EAGAIN) {
            pollfd ready{fd, POLLOUT, 0};  // somebody made it non-blocking; half a line would spoil the next
            poll(&ready, 1, -1);
        } else if (written < 0 && errno != EINTR) {
            return false;
        }
        if (written > 0) {
            data += written;
            size -= static_cast<size_t>(written);
        }
    }
    return true;
}

bool writeLine(const Target& target, const std::string& line)
{
    if (!target.needsLock) {
        return writeAll(target.fd, line.data(), line.size());
    }
    pthread_mutex_lock(&lineLock);
    struct flock whole {};
    whole.l_type = F_WRLCK;
    int code = 0;
    while ((code = fcntl(target.fd, F_SETLKW, &whole)) != 0 && errno == EINTR) {
    }
    const bool locked = code == 0;  // where it is not supported, better mixed than lost
    const bool done = writeAll(target.fd, line.data(), line.size());
    if (locked) {
        whole.l_type = F_UNLCK;
        fcntl(target.fd, F_SETLK, &whole);
    }
    pthread_mutex_unlock(&lineLock);
    return done;
}

// Control characters are spelled out, also those from U+0080 to U+009F, so that no value can forge a line or steer a
// terminal.
void appendSafe(std::string& line, const char* text)
{
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        const auto next = static_cast<unsigned char>(text[1]);
        if ((byte < 0x20 && byte != '\t') || byte == 0x7f || (byte == 0xc2 && next >= 0x80 && next <= 0x9f)) {
            char escaped[5];
            (void)std::snprintf(escaped, sizeof escaped, "\\x%02x", byte == 0xc2 ? next : byte);
            line += escaped;
            text += byte == 0xc2 ? 1 : 0;
        } else {
            line += *text;
        }
    }
}

std::string formatMessage(const char* format, va_list arguments)
{
    std::string message(256, '\0');
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(&message[0], message.size(), format, arguments);
    if (length >= 0 && static_cast<size_t>(length) >= message.size()) {
        message.resize(static_cast<size_t>(length) + 1);
        (void)std::vsnprintf(&message[0], message.size(), format, again);
    }
    va_end(again);
    message.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return message;
}

int print(const Target& target, log_priority priority, const char* tag, const char* format, va_list arguments)
{
    try {
        std::string message = formatMessage(format, arguments);
        if (!message.empty() && message.back() == '\n') {
            message.pop_back();
        }

        const bool known = priority >= DLOG_VERBOSE && priority <= DLOG_FATAL;
        std::string line(1, known ? "VDIWEF"[priority - DLOG_VERBOSE] : '?');
        line += '/';
        appendSafe(line, tag == nullptr ? "" : tag);
        line += " (" + std::to_string(getpid()) + ":" + std::to_string(gettid()) + ") ";
        appendSafe(line, message.c_str());
        line += '\n';
        return writeLine(target, line) ? static_cast<int>(line.size()) : -1;
    } catch (const std::bad_alloc&) {
        return -1;  // there is no memory for the line, and the caller's work matters more
    }
}

}  // namespace

int dlog_print(log_priority priority, const char* tag, const char* format, ...)
{
    const int savedErrno = errno;
    int cancellation = 0;  // a thread that is cancelled in the middle of a line would leave it locked
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellation);
    const Target& target = theTarget();
    int result = 0;
    if (target.fd >= 0) {
        va_list arguments;
        va_start(arguments, format);
        result = print(target, priority, tag, format, arguments);
        va_end(arguments);
    }
    pthread_setcancelstate(cancellation, nullptr);
    errno = savedErrno;
    return result;
}
