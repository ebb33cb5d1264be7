// The two host-wide scalars: the management server's identifier and the product version.
//
// Thread promise: main thread, inside the agent library's request loop.
#pragma once

#include "mib/NetSnmp.h"

/// @brief Answers get requests for both scalars; tells them apart by the object's number in the request. Every
/// value is fetched anew, from memory: the agent is only waited for when its link is not up yet (500 ms).
///
/// While there is no agent the identifier is the invalid one and the version is empty; neither is an error.
/// noexcept for the reason given in TableHelperHelper.h.
/// @return always 0; no request error is ever set
extern "C" int KxScalar_get_handler(netsnmp_mib_handler* handler, netsnmp_handler_registration* reginfo,
                                    netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) noexcept;
