// A look at the way from the SNMP agent to the containers. Main thread only.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/doctor/Finding.h"

namespace kx::ctl {

/// Where things are.
struct SnmpPlaces {
    std::string agentxSocket = "/var/agentx/master";
    std::string address = "127.0.0.1:161";  ///< of the SNMP agent
    std::optional<std::string> community;   ///< to ask as
    std::vector<std::string> options;       ///< of snmpget(1), to ask with instead
    std::string user = "kxsnmp";            ///< as which the sub-agent runs
};

/// @param eid of the server, as the management agent tells it; nothing when that is not known
Findings examineSnmp(const SnmpPlaces& places, const std::optional<std::string>& eid);

/// How the master agent's socket is used.
struct SocketUse {
    bool isListening = false;
    std::size_t connections = 0;
};

/// @param table what /proc/net/unix says
SocketUse socketUse(const std::string& table, const std::string& path);

}  // namespace kx::ctl
