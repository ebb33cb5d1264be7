// kxctl status: whether the agent answers, who it is, and how its containers are. Main thread only.
#pragma once

#include "ctl/Selection.h"

namespace kx::ctl {

/// The options as they were typed.
struct StatusArguments {
    bool json = false;
};

/// @return Unreachable when the agent is; as JSON that is told in the document
/// @throws Failure
ExitCode runStatus(const StatusArguments& typed, const CommonOptions& common);

}  // namespace kx::ctl
