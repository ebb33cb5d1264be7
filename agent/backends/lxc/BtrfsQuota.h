// The quota group of a btrfs subvolume (btrfs-quota(8)), read by ioctl as <linux/btrfs.h> has it. Plain function, any
// thread; it waits for the disk.
#pragma once

#include "agent/backends/lxc/DiskQuota.h"

namespace kx::agent::lxc {

/// @brief Reads the quota group that btrfs keeps for a subvolume: what it refers to, and its limit. Inodes are not
/// counted there.
/// @param folder descriptor of a folder on a btrfs
QuotaReading readBtrfsQuota(int folder);

}  // namespace kx::agent::lxc
