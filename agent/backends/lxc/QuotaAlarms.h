// When a container's disk quota is told to run out, and when that is over.
//
// Unlike the killing of a process, which happens, usage beyond a limit lasts: it is told once when it begins and once
// when it is over, however long it lasts. Plain values without I/O.
#pragma once

#include <cstdint>
#include <vector>

#include "agent/alerts/Alert.h"
#include "agent/backends/lxc/DiskQuota.h"

namespace kx::agent::lxc {

/// Usage of one resource beside its limits, in the resource's unit.
struct QuotaUse {
    std::int64_t used = 0;
    std::int64_t softLimit = 0;  ///< 0: none
    std::int64_t hardLimit = 0;  ///< 0: none
    std::int64_t graceLeft = 0;  ///< seconds; 0: the soft limit is not exceeded, or is as good as hard now
};

/// The alerts of one resource: a warning beyond the soft limit, a critical one where nothing more can be had.
class QuotaAlarm {
public:
    /// @param softSource, hardSource sources of the alerts, see resourceSignal()
    QuotaAlarm(const Eid& about, const char* softSource, const char* hardSource)
        : about_(about), softSource_(softSource), hardSource_(hardSource) {}

    /// @brief Takes what a look has found.
    /// @return what is to be told
    std::vector<AlertSignal> look(const QuotaUse& use);

    bool isRaised() const { return softRaised_ || hardRaised_; }

private:
    Eid about_;
    const char* softSource_;
    const char* hardSource_;
    bool softRaised_ = false;
    bool hardRaised_ = false;
};

/// The alerts of a container's disk space and inodes.
class QuotaAlarms {
public:
    explicit QuotaAlarms(const Eid& about);

    /// @brief Takes what a look has found; a quota without limits clears what is raised.
    /// @return what is to be told
    std::vector<AlertSignal> look(const DiskQuota& quota);

    bool isRaised() const { return space_.isRaised() || inodes_.isRaised(); }

private:
    QuotaAlarm space_;
    QuotaAlarm inodes_;
};

}  // namespace kx::agent::lxc
