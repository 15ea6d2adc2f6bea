// Running a piece of a test in a process of its own. The store is opened once in a process, at its first use, so a test
// of the store does everything in children and chooses the folder for each.
#ifndef ZOL_TESTS_CHILD_H
#define ZOL_TESTS_CHILD_H

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>

// In a child: ends it with a failure unless the condition holds.
#define REQUIRE(condition)                                                               \
    do {                                                                                 \
        if (!(condition)) {                                                              \
            std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
            _exit(1);                                                                    \
        }                                                                                \
    } while (false)

// Runs the body in a child, which then ends as a program does. One that hangs is killed after a while.
inline pid_t start(const std::function<void()>& body)
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(60);
        body();
        std::exit(0);
    }
    return pid;
}

// The exit code, or minus the signal that killed it.
inline int finish(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

inline void inChild(const std::function<void()>& body) { EXPECT_EQ(0, finish(start(body))); }

// Lets processes or threads wait for each other: each opening lets one pass. The few files are left to the process.
class Gate {
public:
    void open() const { REQUIRE(eventfd_write(fd_, 1) == 0); }
    void pass() const
    {
        eventfd_t one = 0;
        REQUIRE(eventfd_read(fd_, &one) == 0);
    }

private:
    const int fd_ = eventfd(0, EFD_SEMAPHORE);
};

#endif
