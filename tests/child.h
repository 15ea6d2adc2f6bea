// Running a piece of a test in a process of its own. The store is opened once in a process, at its first use, so a test
// of the store does everything in children and chooses the folder for each.
#ifndef ZOL_TESTS_CHILD_H
#define ZOL_TESTS_CHILD_H

#include <gtest/gtest.h>
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

// Lets processes or threads wait for each other: one token a byte.
class Gate {
public:
    Gate() { REQUIRE(pipe(ends_) == 0); }
    ~Gate() { REQUIRE(close(ends_[0]) + close(ends_[1]) == 0); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;
    void open() const { REQUIRE(write(ends_[1], "x", 1) == 1); }
    void pass() const
    {
        char token = 0;
        REQUIRE(read(ends_[0], &token, 1) == 1);
    }

private:
    int ends_[2] = {-1, -1};
};

#endif
