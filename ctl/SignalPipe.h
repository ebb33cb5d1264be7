// Signals as something that poll(2) waits for.
#pragma once

#include <csignal>
#include <vector>

namespace kx::ctl {

/// @brief While it lives its signals do nothing but make a descriptor readable. Made and destroyed on the main thread,
/// which all signals of the process go to. No signal may be in two at a time.
class SignalPipe {
public:
    /// @throws Failure when the system has no descriptors left
    explicit SignalPipe(const std::vector<int>& signals);
    ~SignalPipe();
    SignalPipe(const SignalPipe&) = delete;
    SignalPipe& operator=(const SignalPipe&) = delete;

    /// @return readable, for poll(2), from a signal on until it is taken
    int descriptor() const { return reading_; }

    /// @return the numbers of the signals since the last call, in order
    std::vector<int> takeAll();

private:
    struct Before {
        int signal;
        struct sigaction action;
    };

    int reading_ = -1;
    int writing_ = -1;
    std::vector<Before> before_;
};

}  // namespace kx::ctl
