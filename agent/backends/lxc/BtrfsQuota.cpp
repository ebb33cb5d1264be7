#include "agent/backends/lxc/BtrfsQuota.h"

#include <endian.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>

namespace kx::agent::lxc {
namespace {

std::int64_t signedOf(std::uint64_t littleEndian) {
    constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max();
    return static_cast<std::int64_t>(std::min<std::uint64_t>(le64toh(littleEndian), kMost));
}

/// @return the number of the subvolume that the folder is the top of; nothing when it is the top of none
std::optional<std::uint64_t> subvolumeOf(int folder) {
    struct stat status {};
    btrfs_ioctl_ino_lookup_args lookup{};
    lookup.objectid = BTRFS_FIRST_FREE_OBJECTID;
    const bool isTop = ::fstat(folder, &status) == 0 && status.st_ino == BTRFS_FIRST_FREE_OBJECTID &&
                       ::ioctl(folder, BTRFS_IOC_INO_LOOKUP, &lookup) == 0;
    return isTop ? std::optional<std::uint64_t>(lookup.treeid) : std::nullopt;
}

/// Reads an element of the quota tree, which has one of each type for each subvolume.
/// @return nothing when there is none
template <typename Item>
std::optional<Item> readItem(int folder, std::uint32_t type, std::uint64_t subvolume) {
    btrfs_ioctl_search_args search{};
    search.key.tree_id = BTRFS_QUOTA_TREE_OBJECTID;
    search.key.min_type = search.key.max_type = type;
    search.key.min_offset = search.key.max_offset = subvolume;
    search.key.max_transid = std::numeric_limits<std::uint64_t>::max();
    search.key.nr_items = 1;
    btrfs_ioctl_search_header head{};
    Item item{};
    if (::ioctl(folder, BTRFS_IOC_TREE_SEARCH, &search) != 0 || search.key.nr_items != 1) {
        return std::nullopt;
    }
    std::memcpy(&head, search.buf, sizeof head);
    if (head.type != type || head.len < sizeof item) {
        return std::nullopt;
    }
    std::memcpy(&item, search.buf + sizeof head, sizeof item);
    return item;
}

}  // namespace

QuotaReading readBtrfsQuota(int folder) {
    const auto subvolume = subvolumeOf(folder);
    if (!subvolume) {
        return {{}, "on btrfs their root folders must be subvolumes", true};
    }
    const auto info = readItem<btrfs_qgroup_info_item>(folder, BTRFS_QGROUP_INFO_KEY, *subvolume);
    if (!info) {
        return {{}, "on btrfs quotas must be enabled (btrfs quota enable)", true};
    }
    QuotaReading reading{{}, {}, true};
    reading.quota.spaceUsed = signedOf(info->rfer);
    const auto limit = readItem<btrfs_qgroup_limit_item>(folder, BTRFS_QGROUP_LIMIT_KEY, *subvolume);
    if (limit && (le64toh(limit->flags) & BTRFS_QGROUP_LIMIT_MAX_RFER) != 0) {
        reading.quota.spaceHardLimit = signedOf(limit->max_rfer);
    }
    return reading;
}

}  // namespace kx::agent::lxc
