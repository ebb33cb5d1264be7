// Puts right what the AgentX decoder does to the object identifiers of requests.
//
// Thread promise: main thread, inside the library's request loop.
#pragma once

#include "mib/NetSnmp.h"

/// @brief Injects a handler before all others of a table that cuts the sub-identifiers of each request to 32 bits.
///
/// The library's AgentX decoder reads a sub-identifier as a signed int and stores it in 64 bits, so that .4294967295
/// (a container without a number) arrives as 2^64-1. Rows have 32-bit indexes: without this no GET would find such a
/// row, and a walk would pass it by. It also spares the log a library message for each such request.
/// @param registration a registered table; its handlers are the library's
/// @return SNMPERR_SUCCESS, or the library's error when it has no memory; the table then works but for such rows
int inject_requested_oid_handler(netsnmp_handler_registration* registration);
