// Counter reports as wire messages.
//
// Plain functions and values; one thread at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "agent/counters/CounterLedger.h"
#include "agent/inventory/FrameBody.h"

namespace kx::agent {

/// @brief Makes a report for one client and notes what it tells.
/// @param image the reading
/// @param before what the reading before showed
/// @param told what the client was told last; is brought up to date. A container that the report lacks is forgotten:
/// the client forgets it too, and is told everything of it when it comes back
/// @param monitor the number of the monitor that reports; 0 in an answer
/// @param timeMs of the reading: milliseconds since 1970-01-01 UTC
/// @return the frames of the report, in order, at least one
std::vector<FrameBody> makeReport(const CounterImage& image, const CounterScope& scope, const CounterKinds& kinds,
                                  const CounterMemory& before, CounterMemory& told, std::uint64_t monitor,
                                  std::uint64_t timeMs);

}  // namespace kx::agent
