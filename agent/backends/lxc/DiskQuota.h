// Disk space and inodes of a container, by the file system that its root folder is on:
//   a project quota (ext4, XFS and others; quotactl(2)) of the project that the root folder belongs to
//   btrfs's quota group of the subvolume that the root folder is (BtrfsQuota.h)
//   else what the file system has in use as a whole, where it is mounted whole on the root folder (ZFS, volumes,
//   images)
//
// Where there is none of these usage is not known, and nothing is guessed. Plain functions, any thread; they wait for
// the disk.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "agent/backends/lxc/MountTable.h"

namespace kx::agent::lxc {

/// The counters of the class "counters_kx_quota".
struct DiskQuota {
    std::optional<std::int64_t> spaceUsed;  ///< bytes; absent: not known
    std::int64_t spaceSoftLimit = 0;        ///< bytes; 0: none
    std::int64_t spaceHardLimit = 0;        ///< bytes; 0: none
    std::int64_t spaceGrace =
        0;  ///< seconds left until the soft limit becomes hard; 0: it is not exceeded, or they are over
    std::optional<std::int64_t> inodesUsed;
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
    std::string problem;     ///< why used space is not known, in words; empty: it is known, or the root is out of reach
    bool reachable = false;  ///< false: nothing can be said of the limits either
};

/// @brief Reads the quota of a folder, and what it uses.
/// @param rootFolder a container's root folder, seen from the host; empty: none
QuotaReading readDiskQuota(const std::string& rootFolder);

/// @brief Finds the usage of a container without a quota whose root is a whole file system.
/// @param rootFolder its root folder, seen from the host; empty: the root that its init process has is taken
/// @param mounts those of this process
/// @return nothing known in it where that is not so
DiskQuota readMountUsage(const std::string& rootFolder, pid_t initPid, const MountTable& mounts);

}  // namespace kx::agent::lxc
