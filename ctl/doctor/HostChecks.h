// A look at the host's kernel and file systems. Main thread only.
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
