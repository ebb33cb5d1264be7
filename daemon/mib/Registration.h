// Registers everything that is published with the agent library. All of it is read-only.
//
// Thread promise: main thread, once, after init_agent and before init_snmp. What is registered lives until the
// process ends.
#pragma once

/// @brief Registers the five tables, in the order of their object numbers (4 to 8). A table that cannot be
/// registered is logged at error level and left out; the others are registered all the same.
void register_tables();

/// @brief Registers the two scalars (1 and 2). The library's results are not looked at: it logs for itself.
void register_scalars();
