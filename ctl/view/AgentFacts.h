// What is to be known of the agent itself. Main thread only.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include <kxl/KXLAccessPointPrototype.h>

namespace kx::ctl {

/// @return the product version of the agent's vocabulary; nothing when it has none. Any bytes.
std::optional<std::string> productVersion(const KXLAccessPointPrototype& agent);

/// @brief Asks the agent for a sign of life and waits for it.
/// @param took receives how long it took
/// @param freshness receives what it says of what it publishes
/// @return 0, or a KXLRequestError
int measureRoundTrip(KXLAccessPointPrototype& agent, std::chrono::microseconds& took, KXLFreshness& freshness);

/// @return "0.42 ms"
std::string milliseconds(std::chrono::microseconds time);

}  // namespace kx::ctl
