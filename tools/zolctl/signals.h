// The signals that end the tool.
#ifndef ZOLCTL_SIGNALS_H
#define ZOLCTL_SIGNALS_H

#include <csignal>

namespace zolctl {

/// Blocks SIGINT, SIGTERM and SIGHUP for a command that has to tidy up whatever comes, and so looks for them itself;
/// and ignores SIGPIPE, so that a reader who has gone shows as a failed write.
/// @return the blocked ones.
inline sigset_t blockEndingSignals()
{
    (void)std::signal(SIGPIPE, SIG_IGN);
    sigset_t ending;
    sigemptyset(&ending);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ending, number);
    }
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    return ending;
}

}  // namespace zolctl

#endif
