#include "perf/SNMPNodePerfomanceMonitor.h"

#include <mutex>

ClassStats SNMPNodePerfomanceMonitor::getStats(const std::string& className) {
    const std::lock_guard guard(lock);
    const auto found = perfCache.find(className);
    return found == perfCache.end() ? ClassStats() : found->second;
}

int SNMPNodePerfomanceMonitor::restart(const boost::intrusive_ptr<KXLAccessPointPrototype>&) {
    std::map<std::string, ClassStats> old;  // freed after the lock is released
    const std::lock_guard guard(lock);
    old.swap(perfCache);
    return 0;
}
