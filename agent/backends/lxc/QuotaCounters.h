// The disk quotas of running containers: class "counters_kx_quota".
//
// One thread. A disk may keep a reader waiting, perhaps for ever, so reading is done by DetachedCalls: one whose file
// system does not answer keeps its last reading.
#pragma once

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "agent/backends/lxc/CounterTarget.h"
#include "agent/backends/lxc/DiskQuota.h"
#include "agent/backends/lxc/LogSink.h"
#include "agent/base/DetachedCalls.h"
#include "agent/counters/CounterTables.h"

namespace kx::agent::lxc {

/// Reads them, all containers at once.
class QuotaCounters {
public:
    /// @param log gets a line for each reason why usage is not known, once
    explicit QuotaCounters(LogSink log);

    /// @brief Begins a reading.
    /// @param targets all containers that run
    void start(const std::vector<CounterTarget>& targets);

    /// @brief Waits until all have been read.
    /// @param limit at most so long
    void finish(std::chrono::milliseconds limit) { calls_.finishAll(limit); }

    /// @brief Adds a container's row to the tables.
    /// @param target one of those that were started
    void add(const CounterTarget& target);

    /// @brief Ends a reading.
    /// @return its tables, see CounterTables::take()
    std::vector<CounterTable> take() { return tables_.take(); }

private:
    void complain(const std::string& problem);

    const LogSink log_;
    const std::vector<std::string> names_;
    CounterTables tables_;
    std::set<std::string> problems_;        ///< logged
    std::map<Eid, QuotaReading> readings_;  ///< the last of each container
    DetachedCalls calls_{"quotas"};
};

}  // namespace kx::agent::lxc
