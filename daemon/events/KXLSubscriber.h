// The subscription to the agent's events, and the dispatcher that its receivers are registered in.
//
// Thread promise: start() and stop() from any thread. The link replaces a subscriber with each connection and carries
// the receivers over, so a receiver outlives every subscriber it was registered in.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <mutex>

#include "events/KXLDispatcher.h"

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLConnectionInfo.h>

/// @brief Whose events are subscribed to, and through what.
class KXLSubscriberBase : public virtual KXLRefCounter {
public:
    KXLSubscriberBase(const KXLEID& subscribedEid, boost::intrusive_ptr<KXLAccessProviderPrototype> accessProvider)
        : eid(subscribedEid), provider(std::move(accessProvider)) {}

    const KXLEID& getEID() const { return eid; }

protected:
    const KXLEID eid;
    const boost::intrusive_ptr<KXLAccessProviderPrototype> provider;
};

/// @brief A subscription to events of type T. It carries receivers and knows whether it is wanted; the event
/// connection it will hold is opened by start() once the client library offers event connections.
template <typename T>
class KXLSubscriber : public KXLSubscriberBase, public virtual KXLDispatcher<T> {
public:
    /// @param subscribedEid whose events; KXLEID::EID_INVALID in the placeholder that only carries receivers
    /// @param accessProvider null in the placeholder
    /// @param opensOwnConnection whether the subscription gets a connection with `info` of its own
    /// @param info null: none
    KXLSubscriber(const KXLEID& subscribedEid, boost::intrusive_ptr<KXLAccessProviderPrototype> accessProvider,
                  bool opensOwnConnection, const KXLConnectivityInfo* info)
        : KXLSubscriberBase(subscribedEid, std::move(accessProvider)), ownConnection(opensOwnConnection) {
        if (info != nullptr) {
            connectivity = *info;
        }
    }

    /// @brief The subscription is not wanted any more; a later restart does not undo this.
    virtual void stop() {
        const std::lock_guard guard(lock);
        stopped = true;
    }

    /// @brief The subscription is wanted.
    /// @return 0, or -1 when the provider has no access to the agent
    virtual int start() {
        const std::lock_guard guard(lock);
        stopped = false;
        return this->provider && this->provider->getAccess() ? 0 : -1;
    }

    /// @return true before the first start() and after stop()
    bool isStopped() const {
        const std::lock_guard guard(lock);
        return stopped;
    }

private:
    const bool ownConnection;
    bool stopped = true;
    mutable KXLLock lock;
    KXLConnectivityInfo connectivity;
};
