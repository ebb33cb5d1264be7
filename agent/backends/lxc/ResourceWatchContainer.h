// One container's resources: what is read of them at a look, and which alerts that leads to.
//
// Reads the container's cgroup files, and nothing else; the clock is the caller's. One thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "agent/alerts/Alert.h"
#include "agent/backends/lxc/ResourceWatchAlarm.h"
#include "agent/backends/lxc/ResourceWatchFiles.h"

namespace kx::agent::lxc {

/// How long conditions last and how often they are looked at. Tests shorten it.
struct ResourceTimes {
    std::chrono::milliseconds look{1000};               ///< between looks where nothing tells of changes
    std::chrono::milliseconds calmLook{10'000};         ///< where the kernel tells of changes and nothing is raised
    std::chrono::milliseconds quietAfterKill{60'000};   ///< without a kill, before a shortage of memory is over
    std::chrono::milliseconds quietAfterPids{10'000};   ///< without a hit of the limit of processes, likewise
    std::chrono::milliseconds quietAfterLevel{10'000};  ///< with enough memory free, before a warning is over
    /// Memory that is nearly used up is told after this long. The kernel's account of what could be dropped is up to
    /// two seconds behind, so a cache that grows quickly looks like used memory for that long.
    std::chrono::milliseconds confirmLevel{2500};
};

/// Sources of alerts.
inline constexpr const char* kMemoryOomSource = "memory.oom";
inline constexpr const char* kMemoryLimitSource = "memory.limit";
inline constexpr const char* kPidsLimitSource = "pids.limit";
inline constexpr const char* kHostOomSource = "host.oom";
inline constexpr const char* kSpaceSoftLimitSource = "quota.space.soft";
inline constexpr const char* kSpaceHardLimitSource = "quota.space.hard";
inline constexpr const char* kInodesSoftLimitSource = "quota.inodes.soft";
inline constexpr const char* kInodesHardLimitSource = "quota.inodes.hard";

/// @brief Makes the signal of a source.
/// @param code kAlertClear, or the code of the source's alert
/// @param value a count or an amount; one above the range of the signal's is its highest
AlertSignal resourceSignal(const Eid& about, const char* source, std::int32_t code, std::uint64_t value);

/// What is raised and cleared about a container, over all its runs: what was raised in one is not over by its end.
class WatchedContainer {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// What a look is for.
    enum class Look {
        Regular,  ///< its time has come
        Kills,    ///< there are signs that processes were killed
    };

    /// @param eid whom alerts are about
    WatchedContainer(const Eid& eid, const ResourceTimes& times);

    /// @brief A run has begun. What has happened in it so far is no alert.
    void begin(ResourceFolders folders);

    /// @brief The kernel tells of kills: they need not be looked for without a sign.
    void setKillsAreTold() { killsAreTold_ = true; }

    /// @brief The run is over; there is nothing left to be read.
    void end();

    /// @brief Reads what may have changed.
    /// @return what is to be told
    std::vector<AlertSignal> look(Look what, TimePoint now);

    /// @brief Takes note of kills that the cgroup did not live to tell of.
    /// @return what is to be told
    std::vector<AlertSignal> takeKills(std::uint64_t count, TimePoint now);

    /// @return whether something is raised or about to be
    bool isUnderWay() const { return oom_.isRaised() || level_.isUnderWay() || pids_.isRaised(); }

    /// @return processes known to be killed that were not returned before, those of before the run's beginning included
    std::uint64_t takeNewKills();

    /// @return whether there is a cgroup that can tell of kills
    bool tellsOfKills() const { return readKills(folders_.memory).has_value(); }

    const ResourceFolders& folders() const { return folders_; }

private:
    std::uint64_t newKills(Look what);
    void lookAtKills(std::uint64_t fresh, TimePoint now);
    void lookAtLevel(TimePoint now);
    void lookAtPids(TimePoint now);
    void surveyPids();
    double memoryLevel() const;
    void tell(AlarmTurn turn, const char* source, std::int32_t code, std::uint64_t value);

    const Eid eid_;
    ResourceFolders folders_;
    HitAlarm oom_;
    LevelAlarm level_;
    HitAlarm pids_;
    TreeCount kills_{TreeCount::FirstSeen::IsGrowth};
    TreeCount pidsHits_{TreeCount::FirstSeen::IsKnown};
    bool killsAreTold_ = false;
    std::uint64_t memoryHits_ = 0;
    std::optional<std::uint64_t> pidsLimit_;
    bool pidsAreDivided_ = false;     ///< the container has made cgroups of its own
    unsigned looksAtPids_ = 0;        ///< in this run
    std::uint64_t assumedKills_ = 0;  ///< taken by takeKills()
    std::uint64_t newKills_ = 0;      ///< not yet taken by takeNewKills()
    std::vector<AlertSignal> told_;
};

}  // namespace kx::agent::lxc
