// The cache of per-container performance counters, member of the management-agent link. (The spelling of the class
// is the system's own.)
//
// Nothing is collected until a class is first asked for. From then on the agent pushes fresh samples of it; a read is
// served from the cache, and only while that has nothing for the class by a query of its own. There is no expiry: what
// is there is as fresh as the last push, and a container goes with the push that lacks it.
//
// Thread promise: any thread. Readers get private copies; the lock is held to look up, to copy, to store a push and to
// start subscriptions, which does not wait. The one exception is a query's answer, see getStats().
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "perf/ClassStats.h"

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLLock.h>
#include <kxl/KXLMonitorData.h>

/// @brief Keeps what the agent reports of each counter class.
class SNMPNodePerfomanceMonitor {
public:
    /// @brief A copy of a class's counters. The first read of a class starts its subscription; as long as the cache has
    /// nothing of it, the agent is asked, for at most 500 ms.
    ///
    /// What such a query answers is stored without the lock. That is the system's choice: queries are made only until
    /// the first push, and rarely meet one.
    /// @param className e.g. "counters_kx_quota"
    /// @return empty when nothing is known; that is no error
    ClassStats getStats(const std::string& className);

    /// @brief A new connection is up: what was known of the old one is forgotten, and every class that was asked for is
    /// subscribed to anew, all in one subscription.
    /// @param accessPoint the access point of that connection; null: nothing is subscribed to
    /// @return 0 without an access point, else as startMonitoring
    std::int32_t restart(const boost::intrusive_ptr<KXLAccessPointPrototype>& accessPoint);

private:
    class LocalDataHandler;
    class StaleVeSweeper;

    /// @brief Subscribes to those of the classes that are not yet. The lock must be held.
    /// @return 0; -1 when there was nothing to start; otherwise the library's code
    std::int32_t startMonitoring(const std::vector<std::string>& classes,
                                 const boost::intrusive_ptr<KXLAccessPointPrototype>& accessPoint);

    /// @brief Folds a push or an answer into the cache. Containers that it lacks are gone from every class, also from
    /// those that it is not about.
    /// @param environments where the containers' numbers are looked up; null: none of them has one
    void storeMonitorData(const std::vector<KXLMonitorData>& data,
                          const boost::intrusive_ptr<KXLEnvCache>& environments);
    void storeVeData(int veid, const KXLMonitorData::Classes& classes);
    void mergeStats(const CounterMap& incoming, CounterMap& target);

    KXLLock lock;
    std::map<std::string, std::int32_t> counterTypes;  ///< by counter name; entries are never removed
    std::map<std::string, ClassStats> perfCache;       ///< a class is here once it was asked for
};
