// The cache of per-container performance counters, member of the management-agent link. (The spelling of the class
// is the system's own.)
//
// Thread promise: any thread. Readers get private copies; the lock is held only to copy or to replace.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <map>
#include <string>

#include "perf/ClassStats.h"

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLLock.h>

/// @brief Keeps what the agent reports of each counter class. Nothing is reported before the client library offers
/// performance subscriptions: until then every class is empty, which is how a class without data reads anyway.
class SNMPNodePerfomanceMonitor {
public:
    /// @brief A copy of a class's counters.
    /// @param className e.g. "counters_kx_quota"
    /// @return empty when nothing is known; that is no error
    ClassStats getStats(const std::string& className);

    /// @brief A new connection is up: what was known of the old one is forgotten.
    /// @param accessPoint the access point of that connection; may be null
    /// @return 0
    int restart(const boost::intrusive_ptr<KXLAccessPointPrototype>& accessPoint);

private:
    KXLLock lock;
    std::map<std::string, ClassStats> perfCache;
};
