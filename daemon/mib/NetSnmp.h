// The net-snmp headers, in the one order in which they compile, for everything that talks to the agent library.
//
// Thread promise: none of its own. The agent library belongs to the main thread; only the sending of traps and
// snmp_log are used from elsewhere.
#pragma once

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
// clang-format on
