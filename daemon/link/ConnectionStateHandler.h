// What the link does when its connection comes up or is lost.
//
// Thread promise: called inside initializeSync on the main thread, and on the event-loop thread afterwards; never on
// both at once.
#pragma once

#include "link/SNMPNodeLocalImpl.h"

#include <kxl/KXLRequestHandlerPrototype.h>

/// @brief Handed to the library with each initialisation; the library keeps the one of the successful one.
class SNMPNodeLocalImpl::connection_state_handler : public KXLRequestHandlerAgentPrototype {
public:
    /// @param lockHeld true: made by a thread that has locked the link, for a call that may come back on that thread
    connection_state_handler(bool lockHeld, SNMPNodeLocalImpl& link) : callerHoldsLock(lockHeld), owner(&link) {}

    void handleConnected() override;
    /// Whatever the code: the library reconnects by itself.
    void handleError(int code) override;

private:
    boost::intrusive_ptr<KXLSubscriber<KXLEvent>> replaceSubscriber();

    bool callerHoldsLock;
    SNMPNodeLocalImpl* const owner;  ///< not counted: the link stops all callbacks before it goes
};
