// Who is at the other end of a unix socket, by the kernel's word. Plain values and functions, any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace kx::agent {

/// A peer as it was when it connected (unix(7), SO_PEERCRED and SO_PEERGROUPS).
struct PeerIdentity {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  ///< its supplementary groups
    std::string program;        ///< what it calls itself; empty before it has said so

    /// @return for log lines: `peer "kxsnmp" (pid 12, uid 0)`. A peer that has not given its name is shown with the
    /// name of its process, if that still runs.
    std::string describe() const;
};

/// @param socket a connected unix socket
/// @return nothing when the kernel does not tell
std::optional<PeerIdentity> identifyPeer(int socket);

}  // namespace kx::agent
