#include "mib/RequestedOid.h"

#include <gtest/gtest.h>

#include <vector>

#include "Varbinds.h"

namespace {

// What the handlers behind the injected one were asked for.
std::vector<oid> asked;

int rememberName(netsnmp_mib_handler*, netsnmp_handler_registration*, netsnmp_agent_request_info*,
                 netsnmp_request_info* requests) {
    asked.assign(requests->requestvb->name, requests->requestvb->name + requests->requestvb->name_length);
    return SNMP_ERR_NOERROR;
}

TEST(RequestedOid, ReachesTheTableWith32BitSubIdentifiersHoweverTheLibraryWidensThem) {
    const std::vector<oid> root = {1, 3, 6, 1};
    netsnmp_handler_registration* const registration = netsnmp_create_handler_registration(
        "RequestedOidTest", rememberName, root.data(), root.size(), HANDLER_CAN_RONLY);
    ASSERT_EQ(inject_requested_oid_handler(registration), SNMPERR_SUCCESS);

    // 4294967295 and 4294967289 as the AgentX decoder delivers them, among small ones.
    const std::vector<oid> name = {1, 3, 6, 1, static_cast<oid>(-1), 5, static_cast<oid>(-7), 4294967295U};
    netsnmp_variable_list variable{};
    snmp_set_var_objid(&variable, name.data(), name.size());
    netsnmp_request_info request{};
    request.requestvb = &variable;
    netsnmp_agent_request_info info{};
    info.mode = MODE_GET;
    EXPECT_EQ(netsnmp_call_handlers(registration, &info, &request), SNMP_ERR_NOERROR);
    EXPECT_EQ(asked, (std::vector<oid>{1, 3, 6, 1, 4294967295U, 5, 4294967289U, 4294967295U}));

    snmp_reset_var_buffers(&variable);
    netsnmp_handler_registration_free(registration);
}

}  // namespace
