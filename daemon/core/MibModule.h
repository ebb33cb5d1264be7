// The MIB module's life cycle: what is done between the agent library's start and its first request, and between
// its last request and its shutdown.
//
// Thread promise: main thread; each function once.
#pragma once

/// @brief Sets the notifications up, which brings the link to the management agent into being, and then registers
/// the tables and the scalars. Failures are logged where they happen; start-up goes on without what failed.
void init_mib_module();

/// @brief Destroys the link, which ends everything that runs on the client library's thread. To be called before
/// snmp_shutdown, since that thread sends traps.
void finalize_mib_module();
