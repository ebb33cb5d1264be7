// What a backend finds out. A plain value.
#pragma once

#include <vector>

#include "agent/inventory/Environment.h"
#include "agent/vocabulary/Vocabulary.h"

namespace kx::agent {

/// Everything a backend knows at one moment.
struct HostImage {
    std::vector<Environment> environments;  ///< containers only, in the backend's order; the agent adds the host
    std::vector<Vocabulary> vocabularies;
};

}  // namespace kx::agent
