// Disk space and inodes of a container: the project quota of the file system that its root folder is on
// (quotactl(2); the project's number is the container's VE id).
//
// Where there is no such quota nothing is guessed: limits are 0, and usage is known only of a container that has a file
// system to itself. Plain functions, any thread; they wait for the disk.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace kx::agent::lxc {

/// The counters of the class "counters_kx_quota".
struct DiskQuota {
    std::int64_t spaceUsed = 0;       ///< bytes
    std::int64_t spaceSoftLimit = 0;  ///< bytes; 0: none
    std::int64_t spaceHardLimit = 0;  ///< bytes; 0: none
    std::int64_t spaceGrace =
        0;  ///< seconds left until the soft limit becomes hard; 0: it is not exceeded, or they are over
    std::int64_t inodesUsed = 0;
    std::int64_t inodesSoftLimit = 0;
    std::int64_t inodesHardLimit = 0;
    std::int64_t inodesGrace = 0;  ///< seconds, likewise
    bool operator==(const DiskQuota&) const = default;
};

/// What quotactl(2) tells of a project, in its units.
struct KernelQuota {
    std::uint64_t spaceBytes = 0;
    std::uint64_t softBlocks = 0;  ///< of 1024 bytes
    std::uint64_t hardBlocks = 0;  ///< of 1024 bytes
    std::uint64_t spaceTime = 0;   ///< when the grace ends, seconds since 1970-01-01 UTC; 0: it has not begun
    std::uint64_t inodes = 0;
    std::uint64_t softInodes = 0;
    std::uint64_t hardInodes = 0;
    std::uint64_t inodeTime = 0;  ///< likewise
};

/// @brief Puts what the kernel tells into the units in which it is published.
/// @param now seconds since 1970-01-01 UTC
DiskQuota quotaOf(const KernelQuota& kernel, std::int64_t now);

/// What became of a look at a container's quota.
struct QuotaReading {
    DiskQuota quota;
    int error = 0;  ///< why there is no project quota; 0: there is. ENOENT: no folder to look at
};

/// @brief Reads a container's quota.
/// @param rootFolder its root folder, seen from the host; empty: none
/// @param project the container's VE id
QuotaReading readDiskQuota(const std::string& rootFolder, std::int32_t project);

}  // namespace kx::agent::lxc
