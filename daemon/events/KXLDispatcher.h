// Receivers of events, and the delivery to them.
//
// Thread promise: any thread. The lock is held only while the receivers are copied or changed, never while one of
// them runs; taken after the link's lock where both are needed.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <map>
#include <mutex>

#include "events/KXLReceiver.h"

#include <kxl/KXLLock.h>

/// @brief Delivers events of type T to registered receivers.
template <typename T>
class KXLDispatcher {
public:
    /// The key orders delivery and filters nothing; equal keys keep the order of their registration.
    using Receivers = std::multimap<int, boost::intrusive_ptr<KXLReceiver<T>>>;

    /// @brief Registers a receiver after those that have the same key.
    void addReceiver(int key, const boost::intrusive_ptr<KXLReceiver<T>>& receiver) {
        const std::lock_guard guard(lock);
        receivers.emplace(key, receiver);
    }

    /// @brief Registers every receiver of `added`, in its order.
    void addReceivers(const Receivers& added) {
        const std::lock_guard guard(lock);
        // Not insert(begin, end): that promises no order among equal keys already present.
        for (const auto& [key, receiver] : added) {
            receivers.emplace(key, receiver);
        }
    }

    /// @return the receivers as they are now
    Receivers copyReceivers() const {
        const std::lock_guard guard(lock);
        return receivers;
    }

    /// @brief Delivers one event to the receivers of this moment, on this thread, in key order. Receivers may
    /// register others meanwhile; the delivery under way does not see them.
    void handleEvent(const T& event) {
        for (const auto& [key, receiver] : copyReceivers()) {
            receiver->receive(event);
        }
    }

private:
    mutable KXLLock lock;
    Receivers receivers;
};
