#include "agent/backends/lxc/QuotaAlarms.h"

#include <iterator>

#include "agent/backends/lxc/ResourceWatchContainer.h"

namespace kx::agent::lxc {
namespace {

/// Parts of a limit. Files come in blocks, so a hard limit is seldom reached to the byte: what is left of it is not
/// enough for the next one. Usage that has just gone below a limit may well come back.
constexpr double kAtHardLimit = 0.99;
constexpr double kBelowLimit = 0.95;

double part(std::int64_t used, std::int64_t limit) {
    return limit > 0 ? static_cast<double>(used) / static_cast<double>(limit) : 0.0;
}

/// @return whether it is raised from now on
bool isRaisedNow(bool raised, bool reached, bool isBelow) {
    return raised ? !isBelow : reached;
}

}  // namespace

std::vector<AlertSignal> QuotaAlarm::look(const QuotaUse& use) {
    const double ofSoft = part(use.used, use.softLimit);
    const double ofHard = part(use.used, use.hardLimit);
    const bool isBeyondSoft = ofSoft > 1.0;
    const bool graceIsOver = isBeyondSoft && use.graceLeft == 0;
    const bool hard =
        isRaisedNow(hardRaised_, ofHard >= kAtHardLimit || graceIsOver, ofHard < kBelowLimit && !graceIsOver);
    const bool soft = isRaisedNow(softRaised_, isBeyondSoft, ofSoft < kBelowLimit);

    std::vector<AlertSignal> told;
    const auto tell = [&](bool& raised, bool now, const char* source, std::int32_t code) {
        if (raised != now) {
            raised = now;
            told.push_back(
                resourceSignal(about_, source, now ? code : kAlertClear, static_cast<std::uint64_t>(use.used)));
        }
    };
    tell(softRaised_, soft, softSource_, kAlertWarning);
    tell(hardRaised_, hard, hardSource_, kAlertCritical);
    return told;
}

QuotaAlarms::QuotaAlarms(const Eid& about)
    : space_(about, kSpaceSoftLimitSource, kSpaceHardLimitSource),
      inodes_(about, kInodesSoftLimitSource, kInodesHardLimitSource) {}

std::vector<AlertSignal> QuotaAlarms::look(const DiskQuota& quota) {
    auto told =
        space_.look({quota.spaceUsed.value_or(0), quota.spaceSoftLimit, quota.spaceHardLimit, quota.spaceGrace});
    const auto ofInodes =
        inodes_.look({quota.inodesUsed.value_or(0), quota.inodesSoftLimit, quota.inodesHardLimit, quota.inodesGrace});
    told.insert(told.end(), ofInodes.begin(), ofInodes.end());
    return told;
}

}  // namespace kx::agent::lxc
