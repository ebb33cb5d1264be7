#include "traps/SNMPVeQoSNotificationSender.h"

#include <boost/pointer_cast.hpp>
#include <chrono>
#include <mutex>

#include "mib/LibraryLock.h"
#include "mib/Varbind.h"
#include "traps/MasterSession.h"
#include "traps/SNMPNotificationData.h"
#include "traps/UnsentAlerts.h"

// clang-format off
#include "mib/NetSnmp.h"
#include <net-snmp/agent/agent_trap.h>
// clang-format on

namespace {

VarbindPtr makeVariable(const NotificationVariable& from) {
    VarbindPtr variable = from.value.toVariable();
    snmp_set_var_objid(variable.get(), from.name.subIds(), from.name.length());
    return variable;
}

// From the last to the first, so that each variable takes the rest of the list over.
VarbindPtr makeVariables(const std::vector<NotificationVariable>& from) {
    VarbindPtr list;
    for (auto one = from.rbegin(); one != from.rend(); ++one) {
        VarbindPtr variable = makeVariable(*one);
        variable->next_variable = list.release();
        list = std::move(variable);
    }
    return list;
}

/// Who is in the agent library for longer waits for the master agent.
constexpr std::chrono::milliseconds patience{250};

constexpr const char* busyLibrary = "the master agent does not answer";
constexpr const char* doesNotRead = "the master agent does not read";
constexpr const char* noSession = "there is no session with the master agent";
constexpr const char* connectionLost = "the connection to the master agent is lost";

/// @return why a trap cannot be sent without waiting; null: it can
const char* obstacleOf(MasterSession::Room room) {
    switch (room) {
        case MasterSession::Room::None:
            return doesNotRead;
        case MasterSession::Room::NoSession:
            return noSession;
        default:
            return nullptr;
    }
}

/// @return null; why it was not sent
const char* send(const SNMPNotificationData& notification) {
    const VarbindPtr variables = makeVariables(notification.variables);
    // The main thread may be answering a request on the same session.
    if (!LibraryLock::instance().lockWithin(patience)) {
        return busyLibrary;
    }
    const std::lock_guard library(LibraryLock::instance(), std::adopt_lock);
    if (const char* const obstacle = obstacleOf(MasterSession::instance().room())) {
        return obstacle;
    }
    const MasterSession::Sending sending(MasterSession::instance());
    send_enterprise_trap_vars(notification.genericTrap, notification.specificTrap, notification.enterprise.subIds(),
                              static_cast<int>(notification.enterprise.length()), variables.get());
    return sending.hasSucceeded() ? nullptr : connectionLost;
}

}  // namespace

int SNMPVeQoSNotificationSender::receive(const KXLEvent& event) {
    const int difference = event.getCategory().compare(SNMPNotificationData::category);
    if (difference != 0) {
        return difference;
    }
    // Null where the payload is another's: the pointer's own assertion then ends the process.
    const auto notification = boost::dynamic_pointer_cast<SNMPNotificationData>(event.getData());
    if (const char* const obstacle = send(*notification)) {
        UnsentAlerts::instance().add(obstacle);
    } else {
        UnsentAlerts::instance().end();
    }
    return 0;
}
