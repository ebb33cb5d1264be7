// A look at the host: its kernel and file systems, and whether our programs that run are those that are installed. Main
// thread only.
#pragma once

#include <string>

#include "ctl/doctor/Finding.h"

namespace kx::ctl {

/// @param lxcFolder where the containers are
Findings examineHost(const std::string& lxcFolder);

/// @return what is to be said of project quotas
/// @param error what the kernel answers when it is asked for one; 0: it tells it
Finding quotaFinding(int error, const std::string& folder);

}  // namespace kx::ctl
