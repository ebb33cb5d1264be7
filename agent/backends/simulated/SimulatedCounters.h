// What the counters of a described host show.
//
// Plain function, any thread.
#pragma once

#include <chrono>
#include <map>

#include "agent/backends/simulated/InventoryFile.h"
#include "agent/counters/CounterImage.h"

namespace kx::agent::simulated {

/// @brief Reads the counters as they stand some time after their file was read.
/// @param counters as described; nothing is added to what is described
/// @param passed since the file was read; what a counter adds a second is added for each whole part of it
CounterImage readCounters(const std::map<Eid, Counters>& counters, std::chrono::steady_clock::duration passed);

}  // namespace kx::agent::simulated
