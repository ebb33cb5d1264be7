// Processes that were killed for a memory limit of a cgroup that is no container's: a service's, or that of a container
// which somebody else manages. The kernel counts them for the whole host too, whose memory has not run out.
//
// What tells such a kill from one for the host's sake: under v2 the cgroup, or one above it, counts a hit of its limit
// that led to killing ("oom" of memory.events, cgroup-v2.rst), and both counts include all cgroups below; under v1 only
// the kill is counted, in the process's own cgroup, so it is taken for the limit's where that cgroup or one above it
// has a limit and has hit it.
//
// Reads cgroup files, and nothing else. One thread at a time.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "agent/backends/lxc/ResourceWatchFiles.h"

namespace kx::agent::lxc {

/// Counts them, by surveys: reading all cgroups is not for every second.
class LimitKills {
public:
    /// Cgroups looked at in a survey.
    static constexpr std::size_t kMaxFolders = 4096;

    /// @brief Takes the first survey: what happened before is known.
    /// @param root the top of the hierarchy with the memory controller; an empty path: there is none
    explicit LimitKills(ResourceFolder root);

    /// @brief Surveys the cgroups.
    /// @param containers the memory cgroups of containers, which count for themselves: they are left out with all below
    /// @return kills since the last survey
    std::uint64_t takeNew(const std::set<std::string>& containers);

private:
    struct Counts {
        std::uint64_t kills = 0;
        std::uint64_t hits = 0;  ///< v2: of limits, when there was nothing left but to kill
    };
    using Known = std::map<std::string, Counts>;

    /// A cgroup, and whether one above it has hit its limit.
    struct Place {
        std::string folder;
        bool limited = false;
    };

    std::uint64_t take(Place& place, Known& present) const;

    ResourceFolder root_;
    Known known_;
};

}  // namespace kx::agent::lxc
