// The management agent, as tables, scalars and traps see it.
//
// Thread promise: any thread, except that setEventGate(), the first instance() and destroy() are the main thread's.
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

/// @brief Singleton in front of SNMPNodeLocalImpl.
class SNMPNodeLocal {
public:
    /// @brief The first call makes the link. It is not locked: start-up makes it, before it can have a second thread.
    /// @return null after destroy(); to be handled like an agent that is not there
    static SNMPNodeLocal* instance();

    /// @brief Sets what decides when the agent's events are delivered. Before the first call of instance().
    static void setEventGate(const boost::intrusive_ptr<KXLEventGatePrototype>& gate) { s_eventGate = gate; }

    /// @brief Ends the link, with the loop thread and all callbacks, for the rest of the process. May be repeated.
    static void destroy();

    /// @brief Connects first if that has never worked so far, which takes up to 500 ms.
    /// @return what the agent is reached through; may be null
    boost::intrusive_ptr<KXLAccessPointPrototype> getAccessPoint();

    /// @return the containers; null without an access point
    boost::intrusive_ptr<KXLEnvCache> getEnvCache();

    /// @return the host's identifier; KXLEID::EID_INVALID as long as no agent has reported it
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

    /// @brief Registers a receiver of the agent's events, for good; the latest comes last.
    void addReceiver(const boost::intrusive_ptr<KXLReceiver<KXLEvent>>& receiver);

    /// @brief Passes an event of our own to the same receivers, synchronously. They run under the link's lock: one that
    /// uses the link in response deadlocks.
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
