// SIGINT and SIGTERM, for a command that runs until it is told to end.
#pragma once

#include "ctl/SignalPipe.h"

namespace kx::ctl {

/// @brief While it lives the two signals do not end the process but make a descriptor readable, for good.
class StopSignals : private SignalPipe {
public:
    /// @throws Failure when the system has no descriptors left
    StopSignals() : SignalPipe({SIGINT, SIGTERM}) {}

    using SignalPipe::descriptor;
};

}  // namespace kx::ctl
