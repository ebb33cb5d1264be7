#include "ctl/doctor/SnmpChecks.h"

#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "ctl/Printable.h"
#include "ctl/doctor/FileAccess.h"
#include "ctl/doctor/MibChecks.h"
#include "ctl/doctor/Processes.h"
#include "ctl/doctor/SnmpTools.h"

namespace kx::ctl {
namespace {

constexpr const char* kSubtree = ".1.3.6.1.4.1.53864.1.1";
constexpr const char* kNoServer = "00000000-0000-0000-0000-000000000000";
constexpr const char* kViewLine = "view systemonly included .1.3.6.1.4.1.53864";

/// As whom Debian's snmpd runs.
constexpr const char* kMasterUser = "Debian-snmp";

/// What the agent is given, once.
constexpr const char* kAnswerSeconds = "2";

// ---- the master agent's socket ------------------------------------------------------------------------------------

Finding lookAtMaster(const SnmpPlaces& places, const SocketUse& use) {
    const std::string path = printable(places.agentxSocket);
    const std::string about = "agentx socket";
    struct stat found {};
    if (places.agentxSocket.find('/') != 0) {
        return {Verdict::Warn, about, path + " is no path: not looked at", ""};
    }
    if (::stat(places.agentxSocket.c_str(), &found) != 0) {
        if (errno == EACCES) {
            return {Verdict::Warn, about, fmt::format("{}: you may not look", path), "run this as root"};
        }
        return {Verdict::Fail, about, fmt::format("{}: {}", path, std::strerror(errno)),
                "put \"master agentx\" into snmpd.conf and restart snmpd; --agentx tells another place"};
    }
    if (!S_ISSOCK(found.st_mode) || !use.isListening) {
        return {Verdict::Fail, about, fmt::format("nobody listens at {}", path), "restart snmpd"};
    }
    return {Verdict::Ok, about, fmt::format("{} ({})", path, ownerText(places.agentxSocket)), ""};
}

/// snmpd gives rights to the socket whenever it makes it, but to the folder only where there was none.
std::string howToPass(const std::string& obstacle, const std::string& socket, const Identity& identity) {
    if (obstacle != socket) {
        return fmt::format("chmod a+x {}", printable(obstacle));
    }
    const group* const own = identity.groups.empty() ? nullptr : ::getgrgid(identity.groups.front());
    return fmt::format("put \"agentXPerms 0660 0755 {} {}\" into snmpd.conf and restart snmpd",
                       identityOf(kMasterUser) ? kMasterUser : "root", own == nullptr ? "root" : own->gr_name);
}

Finding lookAtRights(const SnmpPlaces& places) {
    const std::string about = "agentx rights";
    const std::string user = printable(places.user);
    const auto identity = identityOf(places.user);
    if (!identity) {
        return {Verdict::Warn, about, fmt::format("there is no user {}", user),
                "the package kxsnmp makes it; --user tells another one"};
    }
    const auto obstacle = obstacleTo(places.agentxSocket, *identity);
    if (obstacle) {
        return {Verdict::Fail, about,
                fmt::format("{} may not use {} ({})", user, printable(*obstacle), ownerText(*obstacle)),
                howToPass(*obstacle, places.agentxSocket, *identity)};
    }
    return {Verdict::Ok, about, user + " may open it", ""};
}

// ---- the sub-agent ------------------------------------------------------------------------------------------------

struct SubAgent {
    std::string pid;          ///< as text; empty when it does not run, or cannot be seen
    std::size_t connections;  ///< to the master agent's socket
};

/// The kernel lists a connection, also the listener's end of it, in the network namespace of who has connected, which
/// the sub-agent has one of its own for. Everybody may read the list; where there is none the process has ended.
SocketUse useBy(const std::string& pid, const std::string& path) {
    return socketUse(readProcess(pid, "net/unix").value_or(""), path);
}

/// Of several that run, the one that has joined.
SubAgent findSubAgent(const std::vector<std::string>& pids, const std::string& socket) {
    SubAgent found{"", 0};
    for (const std::string& pid : pids) {
        const std::size_t connections = useBy(pid, socket).connections;
        if (found.pid.empty() || connections > found.connections) {
            found = {pid, connections};
        }
    }
    return found;
}

Finding subAgentFinding(const SubAgent& found, bool isAnswering) {
    if (isAnswering) {
        return {Verdict::Ok, kSubAgentName, "it has joined snmpd and answers", ""};
    }
    if (found.pid.empty()) {
        return {Verdict::Fail, kSubAgentName, "it does not run",
                "systemctl start kxsnmp; why it does not: its lines in the "
                "system log"};
    }
    if (found.connections == 0) {
        return {Verdict::Fail, kSubAgentName, fmt::format("it runs (process {}), but has not joined snmpd", found.pid),
                "let agentXSocket in kxsnmp.conf be what it is in snmpd.conf, and see the rights above"};
    }
    return {Verdict::Ok, kSubAgentName,
            fmt::format("it runs (process {}), and snmpd has {} sub-agent connections", found.pid, found.connections),
            ""};
}

/// Each that has joined sends every alert, whoever has started it.
std::optional<Finding> severalFinding(const std::vector<std::string>& pids) {
    if (pids.size() < 2) {
        return std::nullopt;
    }
    const auto isOfService = [](const std::string& pid) {
        return readProcess(pid, "cgroup").value_or("").find("/kxsnmp.service") != std::string::npos;
    };
    const auto service = std::find_if(pids.begin(), pids.end(), isOfService);
    std::vector<std::string> others = pids;
    others.erase(others.begin() + (service == pids.end() ? 0 : service - pids.begin()));
    return Finding{
        Verdict::Fail, "sub-agents",
        fmt::format("{} run (processes {}): every alert is sent as often", pids.size(), fmt::join(pids, ", ")),
        fmt::format("keep one: kill {}", fmt::join(others, " "))};
}

// ---- what a manager sees ------------------------------------------------------------------------------------------

/// @param identity options that say who asks
std::optional<std::string> askAs(const std::vector<std::string>& identity, const SnmpPlaces& places) {
    std::vector<std::string> command{"snmpgetnext", "-m", "", "-On", "-r", "0", "-t", kAnswerSeconds};
    command.insert(command.end(), identity.begin(), identity.end());
    command.insert(command.end(), {places.address, kSubtree});
    return outputOf(command, kToolDeadline);
}

bool isAnswer(const std::string& said) {
    return !lineWith(said, ".").empty();
}

/// Unless it is said who asks: Debian's usual community, and then whoever snmp.conf has as its default.
std::optional<std::string> askNext(const SnmpPlaces& places) {
    if (!places.options.empty()) {
        return askAs(places.options, places);
    }
    auto said = askAs({"-v2c", "-c", places.community.value_or("public")}, places);
    if (!said || places.community || isAnswer(*said)) {
        return said;
    }
    const auto saidToDefault = askAs({}, places);
    return saidToDefault && isAnswer(*saidToDefault) ? saidToDefault : said;
}

Finding viewFinding(const SnmpPlaces& places, const std::string& seen, const std::string& said,
                    const Finding& subAgent) {
    const std::string at = printable(places.address);
    if (!seen.empty()) {
        return {Verdict::Ok, "view", fmt::format("snmpd at {} shows {}", at, kSubtree), ""};
    }
    if (!isAnswer(said)) {
        const std::string words = printable(lastLine(said));
        return {Verdict::Fail, "view", fmt::format("snmpd at {} does not answer: {}", at, words),
                "is snmpd running; is the address right (--snmp-address); ask as you would with snmpget: "
                "kxctl doctor -- -v2c -c COMMUNITY, or -- -v3 -u USER -l authPriv ..."};
    }
    if (subAgent.verdict != Verdict::Ok) {
        return {Verdict::Warn, "view", "cannot be told before kxsnmp has joined snmpd", ""};
    }
    return {
        Verdict::Fail, "view", fmt::format("snmpd at {} does not show {} to who asks", at, kSubtree),
        fmt::format("add it to the view of that community or user, on Debian \"{}\" in snmpd.conf, and restart snmpd",
                    kViewLine)};
}

/// @return nothing when it cannot be told whose containers are shown
std::optional<Finding> serverFinding(const std::string& seen, const std::optional<std::string>& eid) {
    const std::string about = "kxsnmp link";
    if (seen.find(kNoServer) != std::string::npos) {
        return Finding{Verdict::Fail, about, "kxsnmp has not reached the agent: its tables are empty",
                       "let its user open the agent's socket: usermod -aG kxagent kxsnmp, and restart kxsnmp"};
    }
    if (!eid) {
        return std::nullopt;
    }
    if (seen.find(*eid) != std::string::npos) {
        return Finding{Verdict::Ok, about, "kxsnmp shows this agent's containers", ""};
    }
    return Finding{Verdict::Warn, about, "kxsnmp shows another agent's containers",
                   "look whether the right SNMP agent was asked (--snmp-address), and the right agent (--socket)"};
}

}  // namespace

SocketUse socketUse(const std::string& table, const std::string& path) {
    SocketUse use;
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string number, references, protocol, flags, type, state, inode, bound;
        fields >> number >> references >> protocol >> flags >> type >> state >> inode;
        std::getline(fields >> std::ws, bound);
        if (bound == path) {
            const bool isListener = flags == "00010000";  // __SO_ACCEPTCON
            use.isListening = use.isListening || isListener;
            use.connections += !isListener && state == "03" ? 1 : 0;  // connected
        }
    }
    return use;
}

Findings examineSnmp(const SnmpPlaces& places, const std::optional<std::string>& eid) {
    const SocketUse use = useBy("self", places.agentxSocket);
    Findings findings{lookAtMaster(places, use)};
    if (findings.back().verdict == Verdict::Ok) {
        findings.push_back(lookAtRights(places));
    }
    const auto said = askNext(places);
    const std::string seen = said ? lineWith(*said, std::string(kSubtree) + ".") : "";
    const auto pids = processesOf(kSubAgentName);
    if (const auto several = severalFinding(pids)) {
        findings.push_back(*several);
    }
    findings.push_back(subAgentFinding(findSubAgent(pids, places.agentxSocket), !seen.empty()));
    if (said) {
        findings.push_back(viewFinding(places, seen, *said, findings.back()));
    } else {
        findings.push_back({Verdict::Warn, "view", "cannot be told: there is no snmpgetnext", kGetTools});
    }
    const auto server = seen.empty() ? std::nullopt : serverFinding(seen, eid);
    if (server) {
        findings.push_back(*server);
    }
    findings.push_back(examineNames());
    return findings;
}

}  // namespace kx::ctl
