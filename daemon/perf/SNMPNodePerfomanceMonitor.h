// The cache of per-container performance counters, member of the management-agent link. (The spelling of the class
// is the system's own.)
//
// Nothing is collected until a class is first asked for. From then on the agent pushes fresh samples of it; a read is
// served from the cache, and only while that has nothing for the class by a query. There is no expiry: what is there is
// as fresh as the last push, and a container goes with the push that lacks it.
//
// Thread promise: any thread. The lock guards the cache; it is held to look up, to copy, to store a push and to start
// subscriptions, none of which waits. A query's answer is stored without it, see getStats().
#pragma once

#include <atomic>
#include <boost/intrusive_ptr.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "perf/ClassStats.h"

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLLock.h>
#include <kxl/KXLMonitorData.h>

/// @brief Keeps what the agent reports of each counter class.
class SNMPNodePerfomanceMonitor {
public:
    SNMPNodePerfomanceMonitor() = default;
    ~SNMPNodePerfomanceMonitor();
    SNMPNodePerfomanceMonitor(const SNMPNodePerfomanceMonitor&) = delete;
    SNMPNodePerfomanceMonitor& operator=(const SNMPNodePerfomanceMonitor&) = delete;

    /// @brief A copy of a class's counters. The first read of a class starts its subscription; as long as the cache has
    /// nothing of it, the agent is asked, for at most 500 ms.
    ///
    /// Neither the query nor the store of its answer takes the lock: the answer is left, immutable, behind an atomic
    /// pointer, and whoever holds the lock next folds it into the cache before anything else. Of two answers that
    /// wait there the last one stays.
    /// @param className e.g. "counters_kx_quota"
    /// @return empty when nothing is known; that is no error
    ClassStats getStats(const std::string& className);

    /// @brief Which rows a class has now. The list is the same object until an instance or a container comes or goes;
    /// new values alone do not change it. Starts nothing and asks nobody.
    /// @return null while nothing is known of the class
    CounterRowsPtr getRows(const std::string& className);

    /// @brief Copies the counters of some rows, all of them as of one moment.
    /// @param rows what getRows() gave for the class
    /// @param places positions in it
    /// @param into receives one map for each place
    /// @return false when the class has other rows by now; nothing is copied then
    bool copyCounters(const std::string& className, const CounterRowsPtr& rows,
                      const std::vector<std::uint32_t>& places, std::vector<CounterMap>& into);

    /// @brief A new connection is up: what was known of the old one is forgotten, and every class that was asked for is
    /// subscribed to anew, all in one subscription.
    /// @param accessPoint the access point of that connection; null: nothing is subscribed to
    /// @return 0 without an access point, else as startMonitoring
    std::int32_t restart(const boost::intrusive_ptr<KXLAccessPointPrototype>& accessPoint);

private:
    class LocalDataHandler;
    class StaleVeSweeper;
    struct Answer;

    /// @brief Takes the lock, and folds the answer that waits, if any, into the cache.
    std::unique_lock<KXLLock> lockCache();
    /// The lock must be held.
    void takeAnswer();

    /// @brief Queries the agent for one class. The lock is not needed, nor is the cache changed.
    /// @param answer receives the tables; it has the types of the counters known so far
    /// @return false when the query failed
    static bool query(const std::string& className, const boost::intrusive_ptr<KXLAccessPointPrototype>& accessPoint,
                      Answer& answer);

    /// @brief Leaves an answer to the next holder of the lock. The lock need not be held.
    /// @return what it says of the class, on top of what was stored since the query was made
    ClassStats storeAnswer(std::unique_ptr<Answer> answer, const std::string& className);

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
    void storeInstances(const std::string& className, int veid, const InstanceMap& sample);
    void mergeStats(const CounterMap& incoming, CounterMap& target);

    KXLLock lock;
    std::map<std::string, std::int32_t> counterTypes;  ///< by counter name; entries are never removed
    std::map<std::string, ClassStats> perfCache;       ///< a class is here once it was asked for

    std::map<std::string, CounterRowsPtr> rowLists;  ///< of the classes whose rows have not changed since getRows()

    std::atomic<Answer*> waiting{nullptr};  ///< owned; exchanged as a whole, and read by whoever took it
    std::atomic<std::uint64_t> stores{0};   ///< pushes and restarts so far; written with the lock held
    std::uint64_t connections = 0;          ///< restarts so far; guarded by the lock
};
