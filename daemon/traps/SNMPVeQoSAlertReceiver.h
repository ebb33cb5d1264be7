// Translates alerts of the management agent into notifications.
//
// Thread promise: loop thread, no lock held: it may wait a moment for room (TrapPace.h), and takes the link's lock.
#pragma once

#include "events/KXLReceiver.h"

#include <kxl/KXLEvent.h>

/// @brief Stateless; one notification for each alert about a known container.
class SNMPVeQoSAlertReceiver : public KXLReceiver<KXLEvent> {
public:
    /// @return 0, also for what it ignores: other events, alerts about the host or about unknown containers
    int receive(const KXLEvent& event) override;
};
