// The desk platform's log service: one line a call, to standard error, to a file or nowhere. Logging must never end the
// program nor stop it for long. So it takes no lock, and a line that cannot be written is dropped and counted.

#include <dlog.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kOff = -1;
constexpr int kNotChosen = -2;
constexpr std::chrono::seconds kLongestWait{2};  // of one line, for a reader

// Where the lines go. Chosen by the first line and never closed, so that threads may still log while the process ends.
std::atomic<int> target{kNotChosen};
std::atomic<unsigned> lost{0};  // lines since the last one that was written

int openFile(const char* path, int flags)
{
    const int low = open(path, O_WRONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | flags, 0600);
    if (low > STDERR_FILENO || low < 0) {
        return low;
    }
    const int fd = fcntl(low, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);  // 0 to 2 belong to the program
    close(low);
    return fd;
}

bool waitForRoom(int fd, Clock::time_point deadline)
{
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd room{fd, POLLOUT, 0};
        const int found = poll(&room, 1, std::max(static_cast<int>(left.count()), 0));
        if (found >= 0 || errno != EINTR) {
            return found > 0;
        }
    }
}

// Writes that may wait take one piece at a time, after poll has found room for it. A piece is not mixed with others.
bool writeAll(int fd, bool mayBlock, const char* data, size_t size, Clock::time_point deadline)
{
    const size_t piece = mayBlock ? PIPE_BUF : size;
    bool mustAsk = mayBlock;
    while (size > 0) {
        if (mustAsk && !waitForRoom(fd, deadline)) {
            return false;
        }
        const ssize_t written = write(fd, data, std::min(size, piece));
        if (written >= 0) {
            data += written;
            size -= static_cast<size_t>(written);
        } else if (errno == EAGAIN && (!mustAsk || Clock::now() < deadline)) {
            mustAsk = true;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool writeLine(int fd, const std::string& text, bool mayWait)
{
    bool mayBlock = false;  // the log's own file was opened not to, and a regular file never does
    int terminal = -1;
    if (fd == STDERR_FILENO) {
        struct stat status {};
        const bool isOpen = fstat(fd, &status) == 0;
        if (isOpen && S_ISCHR(status.st_mode)) {  // poll may find room although a write still waits
            terminal = openFile("/proc/thread-self/fd/2", 0);
        }
        mayBlock = terminal < 0 && !(isOpen && S_ISREG(status.st_mode));
    }

    sigset_t failing;  // what a write may bring
    sigemptyset(&failing);
    sigaddset(&failing, SIGPIPE);
    sigaddset(&failing, SIGXFSZ);
    sigset_t blocked = failing;
    sigaddset(&blocked, SIGTTOU);  // stops the background jobs of a terminal that write
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const bool done = writeAll(terminal < 0 ? fd : terminal, mayBlock, text.data(), text.size(),
                               Clock::now() + (mayWait ? kLongestWait : kLongestWait.zero()));
    if (!done) {
        const timespec now{};
        sigtimedwait(&failing, nullptr, &now);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (terminal >= 0) {
        close(terminal);
    }
    return done;
}

int chooseTarget()
{
    const char* where = secure_getenv("ZOL_DLOG");
    if (where == nullptr || *where == '\0' || std::strcmp(where, "stderr") == 0) {
        return STDERR_FILENO;
    }
    if (std::strcmp(where, "off") == 0) {
        return kOff;
    }
    const int fd = openFile(where, O_APPEND | O_CREAT);
    if (fd >= 0) {
        return fd;
    }
    const int error = errno;
    writeLine(STDERR_FILENO,
              std::string("ZOL_DLOG: cannot append to ") + where + " (" + std::strerror(error) +
                  "); the log goes to standard error\n",
              true);
    return STDERR_FILENO;
}

// Without a lock, which a child forked by another thread would find taken.
int theTarget()
{
    int fd = target.load();
    if (fd == kNotChosen) {
        const int chosen = chooseTarget();
        if (target.compare_exchange_strong(fd, chosen)) {
            return chosen;
        }
        if (chosen > STDERR_FILENO) {
            close(chosen);
        }
    }
    return fd;
}

// Control characters are spelled out, also those from U+0080 to U+009F and lone bytes of these numbers, so that no
// value can forge a line or steer a terminal.
void appendSafe(std::string& line, const char* text)
{
    int rest = 0;  // how many bytes the character still has
    for (; *text != '\0'; ++text) {
        auto byte = static_cast<unsigned char>(*text);
        const auto next = static_cast<unsigned char>(text[1]);
        const bool inside = rest > 0 && (byte & 0xc0) == 0x80;
        if (byte == 0xc2 && next >= 0x80 && next <= 0x9f) {
            byte = next;
            ++text;
        }
        rest = inside ? rest - 1 : byte >= 0xf0 ? 3 : byte >= 0xe0 ? 2 : byte >= 0xc2 ? 1 : 0;
        if (!inside && ((byte < 0x20 && byte != '\t') || (byte >= 0x7f && byte <= 0x9f))) {
            char escaped[5];
            (void)std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            line += escaped;
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

int print(int fd, log_priority priority, const char* tag, const char* format, va_list arguments)
{
    unsigned before = 0;
    try {
        std::string message = formatMessage(format, arguments);
        if (!message.empty() && message.back() == '\n') {
            message.pop_back();
        }

        const bool known = priority >= DLOG_VERBOSE && priority <= DLOG_FATAL;
        const std::string from = " (" + std::to_string(getpid()) + ":" + std::to_string(gettid()) + ") ";
        std::string line(1, known ? "VDIWEF"[priority - DLOG_VERBOSE] : '?');
        line += '/';
        appendSafe(line, tag == nullptr ? "" : tag);
        line += from;
        appendSafe(line, message.c_str());
        line += '\n';
        const size_t size = line.size();
        before = lost.exchange(0);
        if (before > 0) {  // the last one may have been written in part
            line.insert(0, "\nW/DLOG" + from + std::to_string(before) + " lines lost\n");
        }
        if (writeLine(fd, line, before == 0)) {
            return static_cast<int>(size);
        }
    } catch (const std::bad_alloc&) {  // there is no memory for the line, and the caller's work matters more
    }
    lost += before + 1;
    return -1;
}

}  // namespace

int dlog_print(log_priority priority, const char* tag, const char* format, ...)
{
    const int savedErrno = errno;
    int cancellation = 0;  // callers may hold locks, and do not expect a thread to end here
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellation);
    const int fd = theTarget();
    int result = 0;
    if (fd >= 0) {
        va_list arguments;
        va_start(arguments, format);
        result = print(fd, priority, tag, format, arguments);
        va_end(arguments);
    }
    pthread_setcancelstate(cancellation, nullptr);
    errno = savedErrno;
    return result;
}
