// What became of one environment in an update of the list. Plain values, no thread of their own.
#pragma once

#include <cstdint>
#include <string>

#include "agent/inventory/Eid.h"

namespace kx::agent {

/// What happened to it.
enum class ChangeKind { Added, Modified, Removed };

/// Enough of an environment to tell which one it is, also of one that is gone.
struct EnvironmentChange {
    Eid eid;
    ChangeKind kind = ChangeKind::Modified;
    std::string name;
    std::int32_t state = 0;  ///< as it is now; of a removed one, as it was last
    std::int32_t transition = 0;

    bool operator==(const EnvironmentChange&) const = default;
};

}  // namespace kx::agent
