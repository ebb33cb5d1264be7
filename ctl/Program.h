// kxctl as a whole: the command line, the command, and how it ends. Main thread only.
#pragma once

#include "ctl/ExitCode.h"

namespace kx::ctl {

/// @brief Reads the command line, runs what it selects, and says on standard error what went wrong. Nothing is thrown.
/// @param argv as main() gets it, the program's name first
ExitCode runProgram(int argc, const char* const* argv);

}  // namespace kx::ctl
