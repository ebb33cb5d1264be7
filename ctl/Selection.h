// What the command line has selected: each command puts itself here. Main thread only.
#pragma once

#include <functional>
#include <string>

#include "ctl/ExitCode.h"

namespace kx::ctl {

/// @brief The command to run, and what is common to all.
struct Selection {
    std::string socket;  ///< the path of the agent's socket

    /// Runs the command; throws Failure. Empty until one was selected.
    std::function<ExitCode(const std::string& socket)> run;
};

}  // namespace kx::ctl
