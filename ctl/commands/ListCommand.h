// kxctl list: the containers, a line each. Main thread only.
#pragma once

#include <string>
#include <vector>

#include "ctl/Selection.h"

namespace kx::ctl {

/// The options as they were typed.
struct ListArguments {
    bool all = false;  ///< environments without a number and of other types too
    bool json = false;
    std::vector<std::string> states;  ///< words or numbers; empty: all
};

/// @throws Failure, of wrong usage before anything is asked of the agent
ExitCode runList(const ListArguments& typed, const CommonOptions& common);

}  // namespace kx::ctl
