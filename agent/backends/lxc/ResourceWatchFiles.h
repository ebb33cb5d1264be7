// What the kernel says of a cgroup's memory and number of processes: under cgroup v1
// (Documentation/admin-guide/cgroup-v1/memory.rst, pids.rst) and v2 (cgroup-v2.rst).
//
// Plain functions and values, any thread. The files belong to the host; reading one takes some microseconds.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/backends/lxc/CgroupTree.h"

namespace kx::agent::lxc {

/// Where the cgroup of a controller is. An empty path: nowhere.
struct ResourceFolder {
    std::string path;
    bool v2 = false;
    bool operator==(const ResourceFolder&) const = default;
};

/// A container's cgroups. On one host the two may be of different versions.
struct ResourceFolders {
    ResourceFolder memory;
    ResourceFolder pids;
    bool operator==(const ResourceFolders&) const = default;
};

/// @param mounts the cgroup hierarchies of this host
/// @param processCgroups content of /proc/<pid>/cgroup of a container's init process
/// @param configured see payloadPath()
/// @return v1's where a hierarchy of v1 has the controller, else v2's where the cgroup has it. The root of a hierarchy
/// is nobody's.
ResourceFolders resourceFoldersOf(const std::vector<CgroupMount>& mounts, std::string_view processCgroups,
                                  const std::string& configured = {});

/// @brief The same for a process.
/// @param initPid a container's init process, seen from here
/// @param configured see payloadPath()
/// @return nothing in it when there is no such process
ResourceFolders resourceFoldersOf(const std::vector<CgroupMount>& mounts, pid_t initPid,
                                  const std::string& configured = {});

/// @return the top of the hierarchy with the memory controller; an empty path: there is none
ResourceFolder memoryRootOf(const std::vector<CgroupMount>& mounts);

/// A resource that has a limit.
struct ResourceUse {
    std::uint64_t limit = 0;
    std::uint64_t used = 0;

    /// @return the used part of the limit
    double level() const { return limit == 0 ? 1.0 : static_cast<double>(used) / static_cast<double>(limit); }
};

/// @brief Memory that cannot be had back: without the file cache and what else the kernel drops when it is short.
/// @return nothing where there is no limit, or no such cgroup
std::optional<ResourceUse> readWorkingSet(const ResourceFolder& memory);

/// @return bytes used, file cache included; nothing when there is no such cgroup
std::optional<std::uint64_t> readMemoryUsage(const ResourceFolder& memory);

/// @return how often the limit was hit so far; nothing when there is no such cgroup
std::optional<std::uint64_t> readMemoryHits(const ResourceFolder& memory);

/// @return processes killed for lack of memory so far: v2 also in cgroups below it, v1 in this one alone
std::optional<std::uint64_t> readKills(const ResourceFolder& memory);

/// @return how often v2 had to kill for a limit of this cgroup or one below it; nothing when there is no such cgroup
std::optional<std::uint64_t> readLimitOoms(const ResourceFolder& memory);

/// @return how often v2 killed all of a cgroup at once; nothing when there is no such cgroup, before Linux 5.17
std::optional<std::uint64_t> readGroupKills(const ResourceFolder& memory);

/// @return the limit of memory in bytes; nothing where there is none, or no such cgroup
std::optional<std::uint64_t> readMemoryLimit(const ResourceFolder& memory);

/// @return the limit of processes and threads; nothing where there is none, or no such cgroup
std::optional<std::uint64_t> readPidsLimit(const std::string& pidsFolder);

/// @return processes and threads; nothing when there is no such cgroup
std::optional<std::uint64_t> readPids(const std::string& pidsFolder);

/// @return how often a process could not be made because of the limit. Under v1, and v2 before Linux 6.11, this is
/// counted in the cgroup of the process that tried, which may be one below it.
std::optional<std::uint64_t> readPidsHits(const std::string& pidsFolder);

/// @return whether there are cgroups below one
bool hasInnerCgroups(const std::string& folder);

/// @return the cgroups right below one
std::vector<std::string> innerCgroups(const std::string& folder);

/// What the kernel counts for the whole host since its start.
struct HostMemory {
    std::uint64_t kills = 0;  ///< processes killed for lack of memory, whosever
    std::optional<std::uint64_t>
        reclaims;  ///< how often somebody had to wait for memory of the host's; absent: not counted
};

/// @param vmstat a file like /proc/vmstat (proc(5))
/// @return nothing when it does not count kills
std::optional<HostMemory> readHostMemory(const std::string& vmstat);

/// Adds up a count that each cgroup of a tree keeps for itself, while cgroups come and go.
class TreeCount {
public:
    using Read = std::function<std::optional<std::uint64_t>(const std::string& folder)>;

    /// Cgroups looked at in one tree. A container may make as many as it likes.
    static constexpr std::size_t kMaxFolders = 4096;

    /// What the count of a cgroup that is seen for the first time tells, when the top one has been seen before.
    enum class FirstSeen {
        IsGrowth,  ///< trees are looked through whenever there may be something new
        IsKnown,   ///< it may have grown long ago
    };

    explicit TreeCount(FirstSeen firstSeen) : firstSeen_(firstSeen) {}

    /// @brief Reads the count of the top cgroup.
    /// @return by how much it has grown since the last time; 0 the first time, and when it is gone
    std::uint64_t lookAtTop(const std::string& top, const Read& read);

    /// @brief Reads the counts of the top cgroup and of all below it.
    /// @return by how much they have grown, likewise
    std::uint64_t lookAtTree(const std::string& top, const Read& read);

    /// @return what the cgroups counted at the first look, and all growth since
    std::uint64_t total() const { return total_; }

private:
    std::uint64_t take(const std::string& folder, std::uint64_t count, bool firstLook);

    FirstSeen firstSeen_;
    bool begun_ = false;
    std::map<std::string, std::uint64_t> counts_;
    std::uint64_t total_ = 0;
};

}  // namespace kx::agent::lxc
