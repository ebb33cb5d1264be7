#include "link/ConnectionStateHandler.h"

#include <mutex>
#include <utility>

void SNMPNodeLocalImpl::connection_state_handler::handleConnected() {
    std::unique_lock guard(owner->lock, std::defer_lock);
    if (!callerHoldsLock) {
        guard.lock();
    }
    const auto accessPoint = owner->accessPoint;
    const auto subscriber = replaceSubscriber();
    // The library calls again from its loop thread, where nobody has locked anything for us.
    callerHoldsLock = false;
    if (guard.owns_lock()) {
        guard.unlock();
    }
    subscriber->start();
    owner->perfMonitor.restart(accessPoint);
}

boost::intrusive_ptr<KXLSubscriber<KXLEvent>> SNMPNodeLocalImpl::connection_state_handler::replaceSubscriber() {
    boost::intrusive_ptr<KXLSubscriber<KXLEvent>> next(
        new KXLSubscriber<KXLEvent>(owner->accessPoint->getEID(), owner->accessPoint, false, nullptr));
    next->addReceivers(owner->subscriber->copyReceivers());
    // Nothing to stop: that was done on the loss, or it was never started.
    owner->subscriber = next;
    return next;
}

void SNMPNodeLocalImpl::connection_state_handler::handleError(int) {
    std::unique_lock guard(owner->lock, std::defer_lock);
    if (!callerHoldsLock) {
        guard.lock();
    }
    owner->subscriber->stop();
}
