// Threads inherit the signal mask of the thread that makes them. One made while every signal is blocked never takes
// a signal, so that SIGTERM always reaches the main thread.
#pragma once

#include <csignal>

namespace kx::agent::lxc {

/// Blocks every signal for the calling thread while it lives. Not to be shared between threads.
class AllSignalsBlocked {
public:
    AllSignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

private:
    sigset_t before_{};
};

}  // namespace kx::agent::lxc
