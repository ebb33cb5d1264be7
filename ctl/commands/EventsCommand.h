// kxctl events: shows what the agent tells as it happens. Main thread only.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/Selection.h"

namespace kx::ctl {

/// The options as they were typed.
struct EventsArguments {
    bool json = false;
    std::optional<std::string> count;
    std::optional<std::string> since;
    std::vector<std::string> filter;  ///< KEY=VALUE
};

/// @throws Failure, of wrong usage before anything is asked of the agent
ExitCode runEvents(const EventsArguments& typed, const CommonOptions& common);

}  // namespace kx::ctl
