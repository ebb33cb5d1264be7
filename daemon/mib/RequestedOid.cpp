#include "mib/RequestedOid.h"

#include <cstdint>

namespace {

void cutToSubIdentifiers(oid* name, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        name[i] = static_cast<std::uint32_t>(name[i]);
    }
}

// The library calls the next handler by itself, see below.
int cutRequestedOids(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* /*reginfo*/,
                     netsnmp_agent_request_info* /*reqinfo*/, netsnmp_request_info* requests) {
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
        cutToSubIdentifiers(request->requestvb->name, request->requestvb->name_length);
    }
    return SNMP_ERR_NOERROR;
}

}  // namespace

int inject_requested_oid_handler(netsnmp_handler_registration* registration) {
    netsnmp_mib_handler* const handler = netsnmp_create_handler("KxRequestedOid", cutRequestedOids);
    if (handler == nullptr) {
        return SNMPERR_GENERR;
    }
    handler->flags |= MIB_HANDLER_AUTO_NEXT;
    return netsnmp_inject_handler(registration, handler);
}
