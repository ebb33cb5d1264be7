// Containers made up for load tests: many, plausible, and the same every time. Plain functions, any thread.
#pragma once

#include <cstddef>
#include <string>

#include "agent/backends/simulated/InventoryFile.h"
#include "agent/inventory/Environment.h"

namespace kx::agent::simulated {

/// VE id of the first made-up container; the others follow.
inline constexpr std::int32_t kFirstGeneratedVeId = 2001;

/// @brief Makes one container up.
/// @param index which one, 0..kMaxGenerated - 1; the same index gives the same container
/// @param machineId what tells this machine from others
Environment generateContainer(std::size_t index, const std::string& machineId);

/// @brief Makes the counters of one container up: a quota, and one interface unless it is stopped.
/// @param index which one, as above
Counters generateCounters(std::size_t index);

}  // namespace kx::agent::simulated
