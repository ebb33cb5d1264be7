// What a backend finds out. Plain values.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "agent/inventory/Environment.h"
#include "agent/vocabulary/Vocabulary.h"

namespace kx::agent {

/// Everything a backend knows at one moment.
struct HostImage {
    std::vector<Environment> environments;  ///< containers only, in the backend's order; the agent adds the host
    std::vector<Vocabulary> vocabularies;
};

/// How up to date an image is.
struct Freshness {
    std::optional<std::chrono::milliseconds>
        age;                   ///< since it was last compared with the host; absent: it does not grow old
    std::uint32_t silent = 0;  ///< containers of which older values are published, since they do not answer
};

}  // namespace kx::agent
