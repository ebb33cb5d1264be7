#include "agent/backends/lxc/DiskQuota.h"

#include <fcntl.h>
#include <linux/quota.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>
#include <optional>

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

/// By the folder's own descriptor: a path to a device may not exist, or lead to another one by now.
/// @return 0, or an error number
int askKernel(int folder, std::int32_t project, KernelQuota& into) {
    if_dqblk answer{};
    if (::syscall(SYS_quotactl_fd, folder, QCMD(Q_GETQUOTA, PRJQUOTA), project, &answer) != 0) {
        return errno;
    }
    into = {answer.dqb_curspace,  answer.dqb_bsoftlimit, answer.dqb_bhardlimit, answer.dqb_btime,
            answer.dqb_curinodes, answer.dqb_isoftlimit, answer.dqb_ihardlimit, answer.dqb_itime};
    return 0;
}

/// Whether something is mounted on the folder, so that the file system is the container's alone.
bool isMountPoint(int folder) {
    struct stat own {};
    struct stat above {};
    return ::fstat(folder, &own) == 0 && ::fstatat(folder, "..", &above, 0) == 0 && own.st_dev != above.st_dev;
}

DiskQuota usageOfMount(int folder) {
    struct statvfs status {};
    DiskQuota quota;
    if (::fstatvfs(folder, &status) == 0) {
        quota.spaceUsed = capped((status.f_blocks - status.f_bfree) * status.f_frsize);
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

QuotaReading readDiskQuota(const std::string& rootFolder, std::int32_t project) {
    const OwnedDescriptor folder(
        rootFolder.empty() ? -1 : ::open(rootFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK));
    if (!folder) {
        return {{}, ENOENT};
    }
    KernelQuota kernel;
    if (const int error = askKernel(folder.get(), project, kernel)) {
        return {isMountPoint(folder.get()) ? usageOfMount(folder.get()) : DiskQuota{}, error};
    }
    return {quotaOf(kernel, std::time(nullptr)), 0};
}

}  // namespace kx::agent::lxc
