#include "traps/InitTraps.h"

#include "link/SNMPNodeLocal.h"
#include "traps/MasterSession.h"
#include "traps/SNMPVeQoSAlertReceiver.h"
#include "traps/SNMPVeQoSNotificationSender.h"
#include "traps/TrapPace.h"

namespace {

using ReceiverPtr = boost::intrusive_ptr<KXLReceiver<KXLEvent>>;

}  // namespace

void init_traps() {
    MasterSession::watch();
    // Before there is a link: what comes before there is a session with the master agent is held back.
    SNMPNodeLocal::setEventGate(boost::intrusive_ptr<KXLEventGatePrototype>(new TrapGate));
    // Receivers are registered before anything else can reach the link; this first use of it is what makes it and
    // starts the client library's thread. The alert receiver comes first, so that it is offered every event before the
    // sender.
    SNMPNodeLocal::instance()->addReceiver(ReceiverPtr(new SNMPVeQoSAlertReceiver));
    SNMPNodeLocal::instance()->addReceiver(ReceiverPtr(new SNMPVeQoSNotificationSender));
}
