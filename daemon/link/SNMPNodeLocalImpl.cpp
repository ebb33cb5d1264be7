#include "link/SNMPNodeLocalImpl.h"

#include <mutex>
#include <utility>

#include "link/ConnectionStateHandler.h"

#include <kxl/KXLInstallPath.h>
#include <kxl/KXLNamedPipePrototype.h>

namespace {

constexpr const char* transportType = "NamedPipe";
constexpr const char* agentSocketPath = "/var/opt/orma/agent/agent.sock";
constexpr const char* cacheFileName = "kxagent.cache";

/// The initialisation flags are the library's; this value is passed with every call, unchanged.
constexpr int initializeFlags = 0x600003A3;

constexpr int receiverKey = 0;

}  // namespace

AgentConnectionInfo::AgentConnectionInfo() {
    // The library is asked twice, once whether it returns a path and once for it.
    if (getAgentInstallPathHard(cacheFileName, true) != nullptr) {
        cachePath = std::string("/") + (getAgentInstallPathHard(cacheFileName, true) + 1);
    }
    connectionInfo.connectivity.setType(transportType);
}

SNMPNodeLocalImpl::SNMPNodeLocalImpl(boost::intrusive_ptr<KXLEventGatePrototype> eventGate)
    : eventLoop(new KXLEventLoopPrototype),
      // Never started: it only carries the receivers registered before the first connection.
      subscriber(new KXLSubscriber<KXLEvent>(KXLEID::EID_INVALID, nullptr, false, nullptr)) {
    // The library keeps the transport under its name; our own reference is dropped at once.
    const boost::intrusive_ptr<KXLNamedPipePrototype> transport(new KXLNamedPipePrototype);
    eventLoop->setEventGate(std::move(eventGate));
    eventLoop->start();
    connection.connectionInfo.connectivity.setAddress(agentSocketPath);
    connection.connectionInfo.connectivity.setType(transportType);
    createAccessPoint();
    connect(false);
}

void SNMPNodeLocalImpl::createAccessPoint() {
    const auto access = KXLAccessAgentPrototype::createInstance(nullptr, eventLoop, nullptr);
    accessPoint = KXLAccessPointPrototype::createInstance(access, nullptr);
}

int SNMPNodeLocalImpl::connect(bool callerHoldsLock) {
    if (!needsInit) {
        return 0;
    }
    const int result = accessPoint->initializeSync(
        connection.connectionInfo,
        boost::intrusive_ptr<KXLRequestHandlerPrototype>(new connection_state_handler(callerHoldsLock, *this)),
        initializeFlags);
    needsInit = result != 0;
    return result;
}

boost::intrusive_ptr<KXLAccessPointPrototype> SNMPNodeLocalImpl::getAccessPoint() {
    const std::lock_guard guard(lock);
    // The result does not matter: after a failure the next request tries again, and callers see from the access
    // point itself what they get.
    connect(true);
    return accessPoint;
}

void SNMPNodeLocalImpl::addReceiver(const boost::intrusive_ptr<KXLReceiver<KXLEvent>>& receiver) {
    const std::lock_guard guard(lock);
    subscriber->addReceiver(receiverKey, receiver);
}

void SNMPNodeLocalImpl::dispatchEvent(const KXLEvent& event) {
    const std::lock_guard guard(lock);
    subscriber->handleEvent(event);
}

void SNMPNodeLocalImpl::stop() {
    eventLoop->stop();
    subscriber->stop();
}
