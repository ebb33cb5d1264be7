// SIGINT and SIGTERM, for a command that runs until it is told to end.
#pragma once

#include <csignal>

namespace kx::ctl {

/// @brief While it lives the two signals do not end the process but make a descriptor readable. One at a time; made and
/// destroyed on the main thread, which all signals of the process go to.
class StopSignals {
public:
    /// @throws Failure when the system has no descriptors left
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    /// @return readable, for poll(2), from the first signal on
    int descriptor() const { return reading_; }

private:
    int reading_ = -1;
    int writing_ = -1;
    struct sigaction beforeInterrupt_ {};
    struct sigaction beforeTerminate_ {};
};

}  // namespace kx::ctl
