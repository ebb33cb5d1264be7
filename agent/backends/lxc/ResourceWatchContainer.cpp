#include "agent/backends/lxc/ResourceWatchContainer.h"

#include <algorithm>
#include <limits>
#include <string_view>
#include <utility>

namespace kx::agent::lxc {
namespace {

/// Parts of a limit from which on the resource counts as short, and below which it is at ease again.
constexpr double kHighMemory = 0.95;
constexpr double kLowMemory = 0.85;
constexpr double kHighPids = 0.9;

constexpr unsigned kLooksBetweenSurveys = 10;

/// No numbers in them: the same alert has the same text.
struct Texts {
    std::string_view source;
    const char* raised;
    const char* cleared;
};

constexpr Texts kTexts[] = {
    {kMemoryOomSource, "out of memory: processes were killed", "no longer out of memory"},
    {kMemoryLimitSource, "memory is nearly used up", "memory is no longer nearly used up"},
    {kPidsLimitSource, "the limit of processes was hit", "below the limit of processes again"},
    {kHostOomSource, "the host is out of memory: processes outside of containers were killed",
     "the host is no longer out of memory"},
    {kSpaceSoftLimitSource, "more disk space is used than the soft limit allows",
     "disk space is below its soft limit again"},
    {kSpaceHardLimitSource, "disk space is used up", "disk space is no longer used up"},
    {kInodesSoftLimitSource, "more inodes are used than the soft limit allows",
     "inodes are below their soft limit again"},
    {kInodesHardLimitSource, "inodes are used up", "inodes are no longer used up"},
};

}  // namespace

AlertSignal resourceSignal(const Eid& about, const char* source, std::int32_t code, std::uint64_t value) {
    const auto* texts =
        std::find_if(std::begin(kTexts), std::end(kTexts), [&](const Texts& each) { return each.source == source; });
    constexpr auto most = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    return {about, source, code, code == kAlertClear ? texts->cleared : texts->raised,
            static_cast<std::int64_t>(std::min(value, most))};
}

WatchedContainer::WatchedContainer(const Eid& eid, const ResourceTimes& times)
    : eid_(eid),
      oom_(times.quietAfterKill),
      level_({kHighMemory, kLowMemory, times.confirmLevel, times.quietAfterLevel}),
      pids_(times.quietAfterPids) {}

void WatchedContainer::begin(ResourceFolders folders) {
    end();
    folders_ = std::move(folders);
    newKills(Look::Kills);
    newKills_ += kills_.total();
    memoryHits_ = readMemoryHits(folders_.memory).value_or(0);
    pidsHits_.lookAtTop(folders_.pids.path, readPidsHits);
}

void WatchedContainer::end() {
    folders_ = {};
    kills_ = TreeCount(TreeCount::FirstSeen::IsGrowth);
    pidsHits_ = TreeCount(TreeCount::FirstSeen::IsKnown);
    assumedKills_ = 0;
    killsAreTold_ = false;
    looksAtPids_ = 0;
}

std::vector<AlertSignal> WatchedContainer::look(Look what, TimePoint now) {
    if (what == Look::Kills || !killsAreTold_ || oom_.isRaised()) {
        const std::uint64_t fresh = newKills(what);
        newKills_ += fresh;
        lookAtKills(fresh, now);
    }
    if (what == Look::Regular) {
        lookAtLevel(now);
        lookAtPids(now);
    }
    return std::exchange(told_, {});
}

std::vector<AlertSignal> WatchedContainer::takeKills(std::uint64_t count, TimePoint now) {
    assumedKills_ += count;
    lookAtKills(count, now);
    return std::exchange(told_, {});
}

std::uint64_t WatchedContainer::takeNewKills() {
    return std::exchange(newKills_, 0);
}

/// A process may have been killed in any cgroup of the container; v1 counts it in that one only.
std::uint64_t WatchedContainer::newKills(Look what) {
    const ResourceFolder& memory = folders_.memory;
    const auto read = [&](const std::string& folder) { return readKills({folder, memory.v2}); };
    const bool whole = what == Look::Kills && !memory.v2;
    return whole ? kills_.lookAtTree(memory.path, read) : kills_.lookAtTop(memory.path, read);
}

void WatchedContainer::lookAtKills(std::uint64_t fresh, TimePoint now) {
    const bool mayBeOver = oom_.isRaised() && fresh == 0;
    const bool atEase = mayBeOver && memoryLevel() < kHighMemory;
    tell(oom_.look(fresh > 0, atEase, now), kMemoryOomSource, kAlertCritical, kills_.total() + assumedKills_);
}

void WatchedContainer::lookAtLevel(TimePoint now) {
    const std::uint64_t hits = readMemoryHits(folders_.memory).value_or(0);
    const bool hit = hits > std::exchange(memoryHits_, hits);
    // A container that reads files hits its limit all the time; the account of its memory costs more to read.
    if (!hit && !level_.isUnderWay()) {
        return;
    }
    const AlarmTurn turn = level_.look(hit, memoryLevel(), now);
    if (turn != AlarmTurn::None) {
        tell(turn, kMemoryLimitSource, kAlertWarning, readMemoryUsage(folders_.memory).value_or(0));
    }
}

void WatchedContainer::lookAtPids(TimePoint now) {
    const std::string& folder = folders_.pids.path;
    std::uint64_t hits = pidsHits_.lookAtTop(folder, readPidsHits);
    surveyPids();
    if (hits == 0 && !pids_.isRaised() && !pidsAreDivided_) {
        return;
    }
    const std::uint64_t pids = readPids(folder).value_or(0);
    const bool isNear = pidsLimit_ && static_cast<double>(pids) >= kHighPids * static_cast<double>(*pidsLimit_);
    // Where the limit may have been hit, cgroups below the container's may be the ones that count it.
    if (isNear && pidsAreDivided_) {
        hits += pidsHits_.lookAtTree(folder, readPidsHits);
    }
    tell(pids_.look(hits > 0, !isNear, now), kPidsLimitSource, kAlertCritical, pids);
}

/// Reads what changes seldom, and is not worth being read at every look.
void WatchedContainer::surveyPids() {
    if (looksAtPids_++ % kLooksBetweenSurveys == 0 || pids_.isRaised()) {
        pidsLimit_ = readPidsLimit(folders_.pids.path);
        pidsAreDivided_ = hasInnerCgroups(folders_.pids.path);
    }
}

double WatchedContainer::memoryLevel() const {
    const auto use = readWorkingSet(folders_.memory);
    return use ? use->level() : 0.0;
}

void WatchedContainer::tell(AlarmTurn turn, const char* source, std::int32_t code, std::uint64_t value) {
    if (turn != AlarmTurn::None) {
        told_.push_back(resourceSignal(eid_, source, turn == AlarmTurn::Clear ? kAlertClear : code, value));
    }
}

}  // namespace kx::agent::lxc
