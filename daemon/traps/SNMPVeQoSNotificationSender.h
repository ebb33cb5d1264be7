// Sends notifications as traps.
//
// Thread promise: receive() sends on the thread that dispatches the event, with the link's lock held: the event loop's,
// not the main one. That is the design: a trap leaves as soon as its alert is known, with no queue in between. It is
// the one use of the agent library outside the main thread, under LibraryLock.
#pragma once

#include "events/KXLReceiver.h"

#include <kxl/KXLEvent.h>

/// @brief Takes the events that carry a SNMPNotificationData.
class SNMPVeQoSNotificationSender : public KXLReceiver<KXLEvent> {
public:
    /// @brief Sends the trap, or counts it as unsent where that might wait: it never blocks.
    /// @return 0; another number when the event is of another category. An event of the right category without a
    /// notification is a programming error and ends the process.
    int receive(const KXLEvent& event) override;
};
