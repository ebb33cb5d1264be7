#include "agent/backends/lxc/RunningResources.h"

#include <fcntl.h>

#include <utility>

#include "agent/backends/lxc/CgroupTree.h"
#include "agent/backends/lxc/Descriptors.h"
#include "agent/backends/lxc/RootFile.h"

namespace kx::agent::lxc {
namespace {

constexpr std::size_t kMaxMountInfoBytes = std::size_t{16} * 1024 * 1024;

std::vector<CgroupMount> cgroupMounts() {
    const FileText text = readFile(AT_FDCWD, "/proc/self/mountinfo", Bounds::Host, kMaxMountInfoBytes);
    return text.text ? cgroupMountsIn(*text.text) : std::vector<CgroupMount>();
}

}  // namespace

RunningResources::RunningResources(const Eid& host, SignalSink sink, LogSink log)
    : watch_({.host = host, .memoryRoot = memoryRootOf(cgroupMounts())}, sink, std::move(log)),
      quotas_(std::move(sink)) {}

void RunningResources::update(const std::vector<CounterTarget>& running) {
    std::map<Eid, Run> present;
    QuotaTargets quotas;
    std::vector<CgroupMount> mounts;
    for (const CounterTarget& target : running) {
        const Run run(target.initPid, target.cgroupFolder);
        present.emplace(target.eid, run);
        quotas.insert({target.eid, target.rootFolder});
        const auto known = tracked_.find(target.eid);
        if (known != tracked_.end() && known->second == run) {
            continue;
        }
        if (mounts.empty()) {
            mounts = cgroupMounts();
        }
        const ResourceFolders folders = resourceFoldersOf(mounts, target.initPid, target.cgroupFolder);
        // Found under another process's number if init has ended meanwhile; its end is told next.
        if (!hasEnded(target.pidfd->get())) {
            watch_.track(target.eid, folders);
        }
    }
    for (const auto& [eid, run] : tracked_) {
        if (present.find(eid) == present.end()) {
            watch_.untrack(eid);
        }
    }
    tracked_ = std::move(present);
    quotas_.setTargets(std::move(quotas));
}

}  // namespace kx::agent::lxc
