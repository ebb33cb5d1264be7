// Implementation of SNMPNodeLocal: the client library's objects, and the event subscriber and performance monitor that
// use them.
//
// Threads: main, with the SNMP requests, and the client library's loop thread from the constructor on.
//
// Locking: `lock` covers all members that change after construction, the initialisation, and delivery by
// dispatchEvent(). Next in order is the lock of a dispatcher. The performance monitor is called without `lock`, with
// one exception: a callback inside getAccessPoint(), whose caller has it. Who holds what: docs/threads.md.
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

/// @brief Where and how to connect.
struct AgentConnectionInfo {
    AgentConnectionInfo();

    std::string cachePath;  ///< of no use to us so far
    KXLConnectionInfo connectionInfo;
};

/// @brief See SNMPNodeLocal, whose operations end here.
class SNMPNodeLocalImpl {
public:
    /// @brief Starts the loop and makes the first attempt to connect, whose outcome does not matter here.
    /// @param eventGate see KXLEventLoopPrototype::setEventGate
    explicit SNMPNodeLocalImpl(boost::intrusive_ptr<KXLEventGatePrototype> eventGate = nullptr);
    SNMPNodeLocalImpl(const SNMPNodeLocalImpl&) = delete;
    SNMPNodeLocalImpl& operator=(const SNMPNodeLocalImpl&) = delete;

    /// @brief After it no callback runs. Main thread, before destruction.
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

    // In the order of construction.

    // Unused: addReceiver() registers with the subscriber.
    KXLLock receiverLock;
    std::multimap<int, boost::intrusive_ptr<KXLReceiver<KXLEvent>>> receivers;

    bool needsInit = true;  ///< until initializeSync has succeeded once
    AgentConnectionInfo connection;
    boost::intrusive_ptr<KXLEventLoopPrototype> eventLoop;
    boost::intrusive_ptr<KXLAccessPointPrototype> accessPoint;
    boost::intrusive_ptr<KXLSubscriber<KXLEvent>> subscriber;  ///< never null
    SNMPNodePerfomanceMonitor perfMonitor;
    KXLLock lock;
};
