// kxctl counters: shows what the performance counters of the containers stand at. Main thread only.
#pragma once

#include <CLI/CLI.hpp>

#include "ctl/Selection.h"

namespace kx::ctl {

/// @brief Adds the command to the command line.
/// @param selection gets the command when it is selected; must outlive the parsing
void addCountersCommand(CLI::App& app, Selection& selection);

}  // namespace kx::ctl
