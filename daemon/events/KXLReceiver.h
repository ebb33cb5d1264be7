// The interface of anything that receives events of the management agent.
//
// Thread promise: receive() is called on the client library's event-loop thread, or inside a link's dispatchEvent
// on its caller's thread; never with a dispatcher's lock held.
#pragma once

#include <kxl/KXLGUID.h>
#include <kxl/KXLRefCounter.h>

/// @brief Receives events of type T. The order of the virtual functions is part of the contract.
template <typename T>
class KXLReceiver : public virtual KXLRefCounter {
public:
    /// @return a status for the dispatcher's caller; nobody looks at it today
    virtual int receive(const T& event) = 0;

    /// @brief The connection of the subscription for `eid` failed.
    virtual void subscriptionLost(const KXLEID&) {}
};
