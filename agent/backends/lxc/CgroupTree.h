// Where this host keeps the cgroups of its containers: cgroup v1, v1 with v2 beside it, or pure v2.
//
// Values and plain functions over /proc and the cgroup file systems; any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/backends/lxc/LxcState.h"

namespace kx::agent::lxc {

/// A mounted cgroup hierarchy.
struct CgroupMount {
    std::string mountPoint;
    std::string root;                      ///< the cgroup that is visible at the mount point, usually "/"
    std::vector<std::string> controllers;  ///< v1: "freezer", "name=systemd"; v2: none
    bool v2 = false;
    bool operator==(const CgroupMount&) const = default;
};

/// @param mountInfo content of /proc/<pid>/mountinfo (proc(5))
/// @return its cgroup hierarchies, in the file's order
std::vector<CgroupMount> cgroupMountsIn(std::string_view mountInfo);

/// @brief Looks up a process's cgroup.
/// @param processCgroups content of /proc/<pid>/cgroup (cgroups(7))
/// @return the cgroup's path from the hierarchy's root; nothing when the process is not in that hierarchy
std::optional<std::string> cgroupPathIn(std::string_view processCgroups, const CgroupMount& mount);

/// @brief Turns a cgroup's path into the folder that shows it.
/// @return nothing when the mount does not show this part of the hierarchy
std::optional<std::string> cgroupFolder(const CgroupMount& mount, const std::string& cgroupPath);

/// @brief Cuts a process's cgroup down to its container's: the processes of a container may be in cgroups below it.
/// @param configured the container's lxc.cgroup.dir.container; empty: not set. Below that cgroup, which has the limits,
/// LXC may make one more that the container sees as its top (lxc.cgroup.dir.container.inner)
std::string payloadPath(const std::string& cgroupPath, const std::string& configured);

/// @brief The containers a new or deleted cgroup folder may belong to.
/// @param folderName e.g. "lxc.payload.web", or "lxc.payload.web-1" when "lxc.payload.web" was in use
/// @return their names; none for other folders. "web-1" may be web's second cgroup or that of a container "web-1"
std::vector<std::string> containersOfCgroup(std::string_view folderName);

/// The cgroup hierarchies of this host as they are mounted now.
class CgroupTree {
public:
    /// @brief Reads /proc/self/mountinfo. A host without cgroups gives an empty tree.
    static CgroupTree read();

    /// @brief The folders in which cgroups of containers appear: those of the first process, as for LXC run by
    /// root, in every hierarchy, because a host may exclude LXC from some (lxc.cgroup.use).
    const std::vector<std::string>& containerParents() const { return parents_; }

    /// Files that tell of a container's freezer. A path is empty when there is no such file.
    struct FreezerFiles {
        std::string state;   ///< v1: freezer.state
        std::string events;  ///< v2: cgroup.events
        std::string freeze;  ///< v2: cgroup.freeze
        std::string parent;  ///< the folder in which the container's cgroup is
    };

    /// @param initPid a container's init process, seen from here
    /// @param configured see payloadPath()
    /// @return the freezer that LXC uses for it: v1's where there is one, else v2's; nothing when neither is
    std::optional<FreezerFiles> freezerOf(pid_t initPid, const std::string& configured = {}) const;

private:
    std::vector<CgroupMount> mounts_;
    std::vector<std::string> parents_;
};

/// @brief Reads a container's freezer. Costs one or two small reads.
/// @return Freezer::Unknown when the files are gone
Freezer readFreezer(const CgroupTree::FreezerFiles& files);

}  // namespace kx::agent::lxc
