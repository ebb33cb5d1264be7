#include "traps/SNMPVeQoSNotificationSender.h"

#include <boost/pointer_cast.hpp>

#include "mib/LibraryLock.h"
#include "mib/Varbind.h"
#include "traps/SNMPNotificationData.h"

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

}  // namespace

int SNMPVeQoSNotificationSender::receive(const KXLEvent& event) {
    const int difference = event.getCategory().compare(SNMPNotificationData::category);
    if (difference != 0) {
        return difference;
    }
    // Null where the payload is another's: the pointer's own assertion then ends the process.
    const auto notification = boost::dynamic_pointer_cast<SNMPNotificationData>(event.getData());
    const auto& enterprise = notification->enterprise;
    const VarbindPtr variables = makeVariables(notification->variables);
    const InLibrary library;  // the main thread may be answering a request on the same session
    send_enterprise_trap_vars(notification->genericTrap, notification->specificTrap, enterprise.subIds(),
                              static_cast<int>(enterprise.length()), variables.get());
    return 0;
}
