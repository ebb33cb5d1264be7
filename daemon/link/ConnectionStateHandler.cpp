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
    // Only the first callback can run inside its caller's locked section; later ones come from the event loop and
    // must lock.
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
    // Receivers survive every reconnection with their keys and their order.
    next->addReceivers(owner->subscriber->copyReceivers());
    // The old one is let go without being stopped: handleError stopped it when its link failed.
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
