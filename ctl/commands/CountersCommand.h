// kxctl counters: shows what the performance counters of the containers stand at. Main thread only.
#pragma once

#include <string>
#include <vector>

#include "ctl/Selection.h"

namespace kx::ctl {

/// The options as they were typed.
struct CountersArguments {
    std::vector<std::string> containers;  ///< numbers, names, identifiers or patterns; empty: all
    std::string className;                ///< empty: both classes of containers
    bool exact = false;                   ///< every digit
    bool json = false;
};

/// @throws Failure
ExitCode runCounters(const CountersArguments& typed, const CommonOptions& common);

}  // namespace kx::ctl
