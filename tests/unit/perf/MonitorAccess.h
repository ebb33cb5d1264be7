// The monitor's inner steps, for what no agent can bring about through its interface: a container without any class,
// a class without instances, an accumulated counter that is held as doubles, a fourth word that is not 0. And its lock.
#pragma once

#include "link/SNMPNodeLocal.h"
#include "perf/SNMPNodePerfomanceMonitor.h"

namespace kx::test {

/// An explicit instantiation may name private members: it hands one on to a function that finds it by its tag.
template <typename Tag, typename Tag::Member member>
struct Expose {
    friend typename Tag::Member memberOf(Tag) { return member; }
};

struct MergeStats {
    using Member = void (SNMPNodePerfomanceMonitor::*)(const CounterMap&, CounterMap&);
    friend Member memberOf(MergeStats);
};
struct StoreMonitorData {
    using Member = void (SNMPNodePerfomanceMonitor::*)(const std::vector<KXLMonitorData>&,
                                                       const boost::intrusive_ptr<KXLEnvCache>&);
    friend Member memberOf(StoreMonitorData);
};
struct CounterTypes {
    using Member = std::map<std::string, std::int32_t> SNMPNodePerfomanceMonitor::*;
    friend Member memberOf(CounterTypes);
};

struct MonitorLock {
    using Member = KXLLock SNMPNodePerfomanceMonitor::*;
    friend Member memberOf(MonitorLock);
};

template struct Expose<MergeStats, &SNMPNodePerfomanceMonitor::mergeStats>;
template struct Expose<StoreMonitorData, &SNMPNodePerfomanceMonitor::storeMonitorData>;
template struct Expose<CounterTypes, &SNMPNodePerfomanceMonitor::counterTypes>;
template struct Expose<MonitorLock, &SNMPNodePerfomanceMonitor::lock>;

inline void mergeStats(SNMPNodePerfomanceMonitor& monitor, const CounterMap& incoming, CounterMap& target) {
    (monitor.*memberOf(MergeStats()))(incoming, target);
}
/// With the containers of the link.
inline void storeMonitorData(SNMPNodePerfomanceMonitor& monitor, const std::vector<KXLMonitorData>& data) {
    (monitor.*memberOf(StoreMonitorData()))(data, SNMPNodeLocal::instance()->getEnvCache());
}
inline std::map<std::string, std::int32_t>& counterTypes(SNMPNodePerfomanceMonitor& monitor) {
    return monitor.*memberOf(CounterTypes());
}

inline KXLLock& lockOf(SNMPNodePerfomanceMonitor& monitor) {
    return monitor.*memberOf(MonitorLock());
}

}  // namespace kx::test
