#include "ctl/doctor/HostChecks.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <linux/quota.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ctl/Printable.h"
#include "ctl/doctor/Processes.h"

namespace kx::ctl {
namespace {

bool isCgroup2(const char* folder) {
    struct statfs found {};
    return ::statfs(folder, &found) == 0 && found.f_type == CGROUP2_SUPER_MAGIC;
}

Finding lookAtCgroups() {
    if (isCgroup2("/sys/fs/cgroup")) {
        return {Verdict::Ok, "cgroups", "version 2", ""};
    }
    if (::access("/sys/fs/cgroup/memory", F_OK) == 0) {
        const bool isHybrid = isCgroup2("/sys/fs/cgroup/unified");
        return {Verdict::Ok, "cgroups", isHybrid ? "version 1, with an empty tree of version 2" : "version 1", ""};
    }
    return {Verdict::Warn, "cgroups", "none at /sys/fs/cgroup", "mount them; without them there are no containers"};
}

/// The container's number is its project; any will do to ask whether there are quotas at all.
int askForQuota(const std::string& folder) {
    const int opened = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (opened < 0) {
        return errno;
    }
    if_dqblk answer{};
    const long asked = ::syscall(SYS_quotactl_fd, opened, QCMD(Q_GETQUOTA, PRJQUOTA), 1, &answer);
    const int error = asked == 0 ? 0 : errno;
    ::close(opened);
    return error;
}

// ---- what runs ----------------------------------------------------------------------------------------------------

void append(std::string& list, const std::string& text, const char* separator) {
    list += (list.empty() ? "" : separator) + text;
}

/// A package that was replaced and whose service was not started again.
std::optional<Finding> lookAtPrograms() {
    const std::string about = "upgrade";
    std::string seen, unseen, old, restart;
    for (const std::string program : {"kxagentd", kSubAgentName}) {
        for (const std::string& pid : processesOf(program)) {
            const std::string process = fmt::format("{} (process {})", program, pid);
            const auto maps = readProcess(pid, "maps");
            append(maps ? seen : unseen, process, ", ");
            if (maps && isOutdated(*maps, program)) {
                append(old, process, ", ");
                restart += restart.find(program) == std::string::npos ? " " + program : "";
            }
        }
    }
    if (!old.empty()) {
        return Finding{Verdict::Warn, about, "an older one runs than is installed: " + old,
                       "systemctl restart" + restart};
    }
    if (!unseen.empty()) {
        return Finding{Verdict::Warn, about, "whether it is what is installed cannot be told of " + unseen,
                       "run this as root"};
    }
    return seen.empty() ? std::nullopt
                        : std::optional(Finding{Verdict::Ok, about, "what is installed is what runs: " + seen, ""});
}

}  // namespace

Finding quotaFinding(int error, const std::string& folder) {
    const std::string where = printable(folder);
    switch (error) {
        case 0:
            return {Verdict::Ok, "quotas", "project quotas are on for " + where, ""};
        case ESRCH:
            return {Verdict::Warn, "quotas", "project quotas are off for " + where,
                    "mount its file system with -o prjquota (ext4: first, unmounted, tune2fs -O project,quota); until "
                    "then there are no limits to show"};
        case ENOSYS:
        case EOPNOTSUPP:
        case EINVAL:
        case ENOTTY:
        case ENODEV:
            return {Verdict::Warn, "quotas", "the kernel or the file system has none for " + where,
                    "put the containers on ext4 or xfs, mounted with -o prjquota, if limits are to be shown"};
        case EPERM:
        case EACCES:
            return {Verdict::Warn, "quotas", "only root may look at those of " + where, "run this as root"};
        default:
            return {Verdict::Warn, "quotas", fmt::format("{}: {}", where, std::strerror(error)),
                    "--lxc-path tells where the containers are"};
    }
}

Findings examineHost(const std::string& lxcFolder) {
    const int error = askForQuota(lxcFolder);
    // Quotas that are on, but not for this number yet: what xfs answers.
    const bool isMissing = error == ENOENT && ::access(lxcFolder.c_str(), F_OK) == 0;
    Findings findings{lookAtCgroups(), quotaFinding(isMissing ? 0 : error, lxcFolder)};
    const auto programs = lookAtPrograms();
    if (programs) {
        findings.push_back(*programs);
    }
    return findings;
}

}  // namespace kx::ctl
