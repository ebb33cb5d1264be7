// kxctl alert raise: has a described host report an alert. Main thread only.
#pragma once

#include <optional>
#include <string>

#include "ctl/Selection.h"

namespace kx::ctl {

/// The options as they were typed.
struct AlertArguments {
    std::optional<std::string> container;  ///< a number or a name
    std::optional<std::string> eid;
    bool host = false;
    std::string code;
    std::string value = "0";
    std::string text;
    std::optional<std::string> textFile;
    std::string repeat = "1";
    bool json = false;
};

/// @throws Failure, of wrong usage before anything is asked of the agent
ExitCode runAlertRaise(const AlertArguments& typed, const CommonOptions& common);

}  // namespace kx::ctl
