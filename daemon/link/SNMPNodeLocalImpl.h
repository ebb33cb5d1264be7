// The one connection to the management agent, and what hangs on it.
//
// Threads: the main thread, which answers SNMP requests, and the client library's event-loop thread, started by the
// constructor, which runs the connection-state callbacks after the first initialisation. No thread of the daemon's own.
//
// Locks: `lock` guards needsInit, accessPoint, the subscriber pointer and the initialisation call, and keeps
// addReceiver and dispatchEvent apart from a subscriber swap. A dispatcher's lock is taken after it, never before.
// The monitor takes its own lock, never while its caller holds this one, save in a callback that runs inside
// getAccessPoint().
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <map>
#include <string>

#include "events/KXLReceiver.h"
#include "events/KXLSubscriber.h"
#include "perf/SNMPNodePerfomanceMonitor.h"

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLConnectionInfo.h>
#include <kxl/KXLEvent.h>
#include <kxl/KXLEventLoopPrototype.h>
#include <kxl/KXLLock.h>

/// @brief The parameters of the connection, built once.
struct AgentConnectionInfo {
    AgentConnectionInfo();

    std::string cachePath;  ///< kept for the object's lifetime; nothing else reads it
    KXLConnectionInfo connectionInfo;
};

/// @brief See SNMPNodeLocal, whose operations end here.
class SNMPNodeLocalImpl {
public:
    /// @brief Starts the client library's loop and tries to connect. A failed connection does not fail the
    /// construction: the next getAccessPoint() tries again.
    /// @param eventGate see KXLEventLoopPrototype::setEventGate
    explicit SNMPNodeLocalImpl(boost::intrusive_ptr<KXLEventGatePrototype> eventGate = nullptr);
    SNMPNodeLocalImpl(const SNMPNodeLocalImpl&) = delete;
    SNMPNodeLocalImpl& operator=(const SNMPNodeLocalImpl&) = delete;

    /// @brief Stops the event loop, and with it every callback, then the subscriber. Main thread, once, at the end.
    void stop();

    boost::intrusive_ptr<KXLAccessPointPrototype> getAccessPoint();
    ClassStats getStats(const std::string& className) { return perfMonitor.getStats(className); }
    SNMPNodePerfomanceMonitor& counters() { return perfMonitor; }
    void addReceiver(const boost::intrusive_ptr<KXLReceiver<KXLEvent>>& receiver);
    void dispatchEvent(const KXLEvent& event);
    bool isLoopWaitedFor() const { return eventLoop->isWaitedFor(); }

private:
    class connection_state_handler;

    void createAccessPoint();
    int connect(bool callerHoldsLock);

    // The order of the members is the order of their construction and, reversed, of their destruction.

    // A registry of its own into which nothing is registered: receivers live in the current subscriber's
    // dispatcher, which is what carries them from connection to connection.
    KXLLock receiverLock;
    std::multimap<int, boost::intrusive_ptr<KXLReceiver<KXLEvent>>> receivers;

    bool needsInit = true;  ///< the access point has still to be initialised
    AgentConnectionInfo connection;
    boost::intrusive_ptr<KXLEventLoopPrototype> eventLoop;
    boost::intrusive_ptr<KXLAccessPointPrototype> accessPoint;
    boost::intrusive_ptr<KXLSubscriber<KXLEvent>> subscriber;  ///< never null
    SNMPNodePerfomanceMonitor perfMonitor;
    KXLLock lock;
};
