// The daemon's single link to the host's management agent, as the rest of the daemon sees it.
//
// Thread promise: instance() and destroy() belong to the main thread; every other operation may be called from
// the main thread and from the client library's event-loop thread.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "events/KXLReceiver.h"
#include "perf/ClassStats.h"

#include <kxl/KXLAccessPointPrototype.h>

class KXLEvent;
class SNMPNodeLocalImpl;

/// @brief Process-wide holder of the one SNMPNodeLocalImpl, made on first use and destroyed once.
class SNMPNodeLocal {
public:
    /// @brief The link, made by the first call. That call happens on the main thread during module
    /// initialisation, before any other thread exists, so there is no lock.
    /// @return null once destroyed: callers treat that as having no agent
    static SNMPNodeLocal* instance();

    /// @brief Sets what decides when the agent's events are delivered. Before the first call of instance().
    static void setEventGate(const boost::intrusive_ptr<KXLEventGatePrototype>& gate) { s_eventGate = gate; }

    /// @brief Stops and frees the link; it is never made again in this process. A second call does nothing.
    static void destroy();

    /// @brief The agent's access point. An uninitialised link is tried again first, which may take 500 ms.
    /// @return may be null
    boost::intrusive_ptr<KXLAccessPointPrototype> getAccessPoint();

    /// @return the container cache of the access point; null when there is no access point
    boost::intrusive_ptr<KXLEnvCache> getEnvCache();

    /// @return the agent's own identifier, KXLEID::EID_INVALID when there is no access point
    KXLEID getServerEID();

    /// @brief A copy of what the performance monitor holds of a counter class.
    /// @param className e.g. "counters_kx_quota"
    /// @return empty when there is no data; that is no error
    ClassStats getStats(const std::string& className);

    /// @brief The rows of a counter class, and the counters of some: see SNMPNodePerfomanceMonitor. Neither asks the
    /// agent.
    CounterRowsPtr getCounterRows(const std::string& className);
    bool copyCounters(const std::string& className, const CounterRowsPtr& rows,
                      const std::vector<std::uint32_t>& places, std::vector<CounterMap>& into);

    /// @brief Registers a receiver of the agent's events, after those registered before it.
    void addReceiver(const boost::intrusive_ptr<KXLReceiver<KXLEvent>>& receiver);

    /// @brief Hands an event to every receiver, on this thread, with the link's lock held: a receiver reached
    /// this way must not call any operation of the link.
    void dispatchEvent(const KXLEvent& event);

    /// @return whether a thread waits for the event loop's: see KXLEventLoopPrototype::isWaitedFor
    bool isLoopWaitedFor() const;

    ~SNMPNodeLocal();

private:
    SNMPNodeLocal();

    static SNMPNodeLocal* s_instance;
    static bool s_deleted;
    static boost::intrusive_ptr<KXLEventGatePrototype> s_eventGate;  ///< null: events are always delivered

    std::unique_ptr<SNMPNodeLocalImpl> impl;
};
