// Makes notifications of the agent's resource alerts.
//
// Thread promise: receive() on the event loop's thread, from the subscriber's dispatcher. Never through the link's own
// dispatchEvent, whose lock it takes itself. No state.
#pragma once

#include "events/KXLReceiver.h"

#include <kxl/KXLEvent.h>

/// @brief Takes alerts about containers that the link knows, and dispatches a notification for each.
class SNMPVeQoSAlertReceiver : public KXLReceiver<KXLEvent> {
public:
    /// @brief Sends a notification on its way. Whatever is no alert, and alerts about the host itself or about nothing
    /// known, are passed over in silence.
    /// @return always 0
    int receive(const KXLEvent& event) override;
};
