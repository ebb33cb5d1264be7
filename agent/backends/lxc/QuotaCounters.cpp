#include "agent/backends/lxc/QuotaCounters.h"

#include <fmt/format.h>

#include <memory>
#include <mutex>
#include <utility>

#include "agent/backends/lxc/Descriptors.h"
#include "agent/backends/lxc/MountTable.h"
#include "agent/vocabulary/Vocabulary.h"

namespace kx::agent::lxc {
namespace {

/// Positions among the names of the class.
constexpr std::size_t kSpaceUsed = 0;
constexpr std::size_t kInodesUsed = 4;

/// The mounts of this process, read once a reading where somebody needs them. Any thread.
class SharedMounts {
public:
    const MountTable& get() {
        std::call_once(read_, [this] { table_ = MountTable::of("self"); });
        return table_;
    }

private:
    std::once_flag read_;
    MountTable table_{""};
};

/// On any thread; waits for the disk.
QuotaReading readFully(const CounterTarget& target, SharedMounts& mounts) {
    QuotaReading reading = readDiskQuota(target.rootFolder);
    if (reading.quota.spaceUsed) {
        return reading;
    }
    const DiskQuota usage = readMountUsage(target.rootFolder, target.initPid, mounts.get());
    // What was found under the number of its init process was another's if that has ended meanwhile.
    if (usage.spaceUsed && !hasEnded(target.pidfd->get())) {
        return {usage, {}, true};
    }
    return reading;
}

}  // namespace

QuotaCounters::QuotaCounters(LogSink log)
    : log_(std::move(log)),
      names_(quotaCounterNames()),
      tables_(kQuotaClass, std::make_shared<const std::vector<std::string>>(names_)) {}

void QuotaCounters::start(const std::vector<CounterTarget>& targets) {
    auto known = std::exchange(readings_, {});
    const auto mounts = std::make_shared<SharedMounts>();
    for (const CounterTarget& target : targets) {
        const auto before = known.find(target.eid);
        readings_[target.eid] = before != known.end() ? before->second : QuotaReading();
        calls_.start(target.eid.toWire(), [this, target, mounts]() -> DetachedCalls::Finish {
            return [this, eid = target.eid, reading = readFully(target, *mounts)] { readings_[eid] = reading; };
        });
    }
}

void QuotaCounters::add(const CounterTarget& target) {
    const QuotaReading& reading = readings_[target.eid];
    complain(reading.problem);
    const DiskQuota& quota = reading.quota;
    std::vector<std::string> unknown;
    if (!reading.reachable) {
        unknown = names_;
    } else {
        if (!quota.spaceUsed) {
            unknown.push_back(names_[kSpaceUsed]);
        }
        if (!quota.inodesUsed) {
            unknown.push_back(names_[kInodesUsed]);
        }
    }
    tables_.add({target.eid,
                 "",
                 {quota.spaceUsed.value_or(0), quota.spaceSoftLimit, quota.spaceHardLimit, quota.spaceGrace,
                  quota.inodesUsed.value_or(0), quota.inodesSoftLimit, quota.inodesHardLimit, quota.inodesGrace}},
                unknown);
}

/// Where quotas are not turned on, they are for none of thousands of containers, so that is logged once.
void QuotaCounters::complain(const std::string& problem) {
    if (!problem.empty() && problems_.insert(problem).second) {
        log_(Severity::Info, fmt::format("disk usage of containers is not known: {}; it counts as unknown, and SNMP "
                                         "shows 0",
                                         problem));
    }
}

}  // namespace kx::agent::lxc
