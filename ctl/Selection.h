// What the command line has selected: the command, and what is common to all. Main thread only.
#pragma once

#include <functional>
#include <string>

#include "ctl/ExitCode.h"

namespace kx::ctl {

/// @brief What can be given with any command.
struct CommonOptions {
    std::string socket;    ///< the path of the agent's socket
    bool noColor = false;  ///< no colours, whatever the terminal has
};

/// @brief The command to run.
struct Selection {
    CommonOptions common;

    /// Runs the command; throws Failure. Empty until one was selected.
    std::function<ExitCode(const CommonOptions& common)> run;
};

}  // namespace kx::ctl
