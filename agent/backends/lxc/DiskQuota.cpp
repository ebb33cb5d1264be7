#include "agent/backends/lxc/DiskQuota.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <linux/quota.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>

#include "agent/backends/lxc/BtrfsQuota.h"
#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {
namespace {

/// The unit of limits, whatever the file system's blocks are.
constexpr std::uint64_t kBlockBytes = 1024;

constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max();

std::int64_t capped(std::uint64_t value) {
    return static_cast<std::int64_t>(std::min(value, kMost));
}

std::int64_t bytesOf(std::uint64_t blocks) {
    return blocks > kMost / kBlockBytes ? static_cast<std::int64_t>(kMost)
                                        : static_cast<std::int64_t>(blocks * kBlockBytes);
}

std::int64_t secondsLeft(std::uint64_t end, std::int64_t now) {
    return end == 0 ? 0 : std::max<std::int64_t>(capped(end) - now, 0);
}

/// @return the project that a folder belongs to; 0: none, as all that was never given to one
std::uint32_t projectOf(int folder) {
    fsxattr attributes{};
    return ::ioctl(folder, FS_IOC_FSGETXATTR, &attributes) == 0 ? attributes.fsx_projid : 0;
}

/// By the folder's own descriptor: a path to a device may not exist, or lead to another one by now.
/// @return 0, or an error number
int askKernel(int folder, std::uint32_t project, KernelQuota& into) {
    if_dqblk answer{};
    if (::syscall(SYS_quotactl_fd, folder, QCMD(Q_GETQUOTA, PRJQUOTA), project, &answer) != 0) {
        return errno;
    }
    into = {answer.dqb_curspace,  answer.dqb_bsoftlimit, answer.dqb_bhardlimit, answer.dqb_btime,
            answer.dqb_curinodes, answer.dqb_isoftlimit, answer.dqb_ihardlimit, answer.dqb_itime};
    return 0;
}

QuotaReading readProjectQuota(int folder) {
    const std::uint32_t project = projectOf(folder);
    KernelQuota kernel;
    if (const int error = askKernel(folder, project, kernel)) {
        const char* const why = error == ESRCH ? "they are not turned on" : std::strerror(error);
        return {{}, fmt::format("there are no project quotas where they are kept ({})", why), true};
    }
    if (project == 0) {
        return {{}, "their root folders belong to no project (chattr -p)", true};
    }
    return {quotaOf(kernel, std::time(nullptr)), {}, true};
}

OwnedDescriptor openFolder(const std::string& path) {
    return OwnedDescriptor(path.empty() ? -1 : ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK));
}

/// @return the mount that a folder is the top of; null when it is the top of none
const Mount* mountOn(int folder, const MountTable& mounts) {
    struct statx status {};
    const bool isTop = ::statx(folder, "", AT_EMPTY_PATH, STATX_MNT_ID, &status) == 0 &&
                       (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 && (status.stx_mask & STATX_MNT_ID) != 0;
    return isTop ? mounts.find(status.stx_mnt_id) : nullptr;
}

DiskQuota usageOf(int folder, const Mount* mount) {
    struct stat place {};
    struct statvfs status {};
    DiskQuota quota;
    if (mount == nullptr || ::fstat(folder, &place) != 0 || !mount->isWholeFileSystem(place.st_dev) ||
        ::fstatvfs(folder, &status) != 0) {
        return quota;
    }
    quota.spaceUsed = capped((status.f_blocks - status.f_bfree) * status.f_frsize);
    if (status.f_files > 0) {  // btrfs does not count them
        quota.inodesUsed = capped(status.f_files - status.f_ffree);
    }
    return quota;
}

}  // namespace

DiskQuota quotaOf(const KernelQuota& kernel, std::int64_t now) {
    return {capped(kernel.spaceBytes),  bytesOf(kernel.softBlocks),
            bytesOf(kernel.hardBlocks), secondsLeft(kernel.spaceTime, now),
            capped(kernel.inodes),      capped(kernel.softInodes),
            capped(kernel.hardInodes),  secondsLeft(kernel.inodeTime, now)};
}

QuotaReading readDiskQuota(const std::string& rootFolder) {
    const OwnedDescriptor folder = openFolder(rootFolder);
    if (!folder) {
        return {};
    }
    struct statfs kind {};
    const bool isBtrfs = ::fstatfs(folder.get(), &kind) == 0 && kind.f_type == BTRFS_SUPER_MAGIC;
    return isBtrfs ? readBtrfsQuota(folder.get()) : readProjectQuota(folder.get());
}

DiskQuota readMountUsage(const std::string& rootFolder, pid_t initPid, const MountTable& mounts) {
    if (const OwnedDescriptor folder = openFolder(rootFolder)) {
        return usageOf(folder.get(), mountOn(folder.get(), mounts));
    }
    const std::string process = std::to_string(initPid);
    const MountTable ofContainer = MountTable::of(process);
    const Mount* const root = ofContainer.root();
    // Opening one that a process of the container serves could wait for it.
    if (root == nullptr || root->type.substr(0, 4) == "fuse") {
        return {};
    }
    const OwnedDescriptor folder = openFolder(fmt::format("/proc/{}/root", process));
    return folder ? usageOf(folder.get(), root) : DiskQuota();
}

}  // namespace kx::agent::lxc
