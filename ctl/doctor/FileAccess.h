// Who may open a socket in the file system, told from modes and owners. Free functions, any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace kx::ctl {

/// A user with all of its groups.
struct Identity {
    uid_t user = 0;
    std::vector<gid_t> groups;

    bool isIn(gid_t group) const;
};

/// @return nothing when the system has no such user
std::optional<Identity> identityOf(const std::string& userName);

/// @return this process's
Identity ownIdentity();

/// @return "root:kxagent 0660", numbers where there is no name
std::string ownerText(const std::string& path);

/// @brief Looks for what keeps somebody from connecting: folders must let pass, the socket itself be writable. Access
/// lists beyond the mode are not looked at.
/// @return the path that does; nothing when all lets pass
std::optional<std::string> obstacleTo(const std::string& path, const Identity& identity);

}  // namespace kx::ctl
