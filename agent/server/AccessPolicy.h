// Who may talk to the agent: root, and the members of one group. Plain values, any thread.
//
// The socket file's mode says the same, but it can be opened up by mistake and may be passed on to others; the
// kernel's word about the peer cannot.
#pragma once

#include <optional>

#include "agent/server/PeerIdentity.h"

namespace kx::agent {

/// Members of this group may use the agent without being root.
inline constexpr const char* kAgentGroup = "kxagent";

/// Decides for each new connection.
struct AccessPolicy {
    std::optional<gid_t> group;  ///< nothing: the system has no such group
    uid_t ownUid = 0;            ///< an agent that does not run as root also admits its own user

    /// @return whether the peer may use the agent
    bool admits(const PeerIdentity& peer) const;

    /// @brief The policy of this system: looks the group up, for this process's user.
    static AccessPolicy ofSystem();
};

}  // namespace kx::agent
