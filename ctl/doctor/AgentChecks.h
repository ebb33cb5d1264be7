// A look at the management agent: its socket, who may use it, and whether it answers. Main thread only.
#pragma once

#include <optional>
#include <string>

#include "ctl/doctor/Finding.h"

namespace kx::ctl {

/// What the look has brought.
struct AgentReport {
    Findings findings;
    std::optional<std::string> eid;  ///< of the server; nothing when the agent was not reached
};

/// @param socket the path of the agent's socket
AgentReport examineAgent(const std::string& socket);

/// @return what is to be said of two programs' versions; texts fit for a terminal
/// @param agent the name that the agent gave: "kxagentd 0.1.0"
Finding compareVersions(const std::string& own, const std::string& agent);

}  // namespace kx::ctl
