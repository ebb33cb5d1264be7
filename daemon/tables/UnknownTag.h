// The log line of a row that is asked for a column it cannot have.
//
// Thread promise: main thread.
#pragma once

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/library/snmp_logging.h>
// clang-format on

/// @brief Logs that a row was asked for a tag it should never be asked for, at error level.
/// @param tag as it was asked for
inline void logUnknownTag(unsigned tag) {
    snmp_log(LOG_ERR, "problem encountered in %s: unknown tag %d\n", "operator[]", static_cast<int>(tag));
}

/// @brief The same of the network-counter table, whose message is formatted by "%ld"; both formats are kept as they
/// are.
inline void logUnknownLongTag(unsigned tag) {
    snmp_log(LOG_ERR, "problem encountered in %s: unknown tag %ld\n", "operator[]", static_cast<long>(tag));
}
