// kxctl top: what the containers are doing, again and again. Main thread only.
#pragma once

#include <optional>
#include <string>

#include "ctl/Selection.h"

namespace kx::ctl {

/// The options as they were typed.
struct TopArguments {
    std::string sort = "in";
    bool reverse = false;
    std::string interval = "2";
    std::optional<std::string> count;
    bool once = false;
    bool json = false;
};

/// @throws Failure, of wrong usage before anything is asked of the agent
ExitCode runTop(const TopArguments& typed, const CommonOptions& common);

}  // namespace kx::ctl
