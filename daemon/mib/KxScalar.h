// The two host-wide scalars: the management server's identifier and the product version.
//
// Thread promise: main thread, inside the agent library's request loop.
#pragma once

#include "mib/NetSnmp.h"

/// @brief One handler for both scalars. Which one is meant follows from the registered name; its value is read from the
/// link for each request, which waits only for a link that has never been up (500 ms).
///
/// Without an agent the identifier is that of no environment, and the version is empty. noexcept for the reason given
/// in TableHelperHelper.h.
/// @return 0 in every case; requests get no error
extern "C" int KxScalar_get_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                                    netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) noexcept;
