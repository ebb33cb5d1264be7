#include "ctl/doctor/SnmpChecks.h"

#include <dirent.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "ctl/Printable.h"
#include "ctl/doctor/FileAccess.h"
#include "ctl/doctor/Subprocess.h"

namespace kx::ctl {
namespace {

constexpr const char* kSubtree = ".1.3.6.1.4.1.53864.1.1";
constexpr const char* kNoServer = "00000000-0000-0000-0000-000000000000";
constexpr const char* kMibFile = "CORVANE-MIB.txt";
constexpr const char* kSubAgent = "kxsnmp";
constexpr const char* kViewLines =
    "put into snmpd.conf: \"view kxsnmp included .1.3.6.1.4.1.53864\" and \"rocommunity public 127.0.0.1 -V kxsnmp\", "
    "and restart snmpd";

/// One try of two seconds; the tool itself takes some time to start.
constexpr const char* kAnswerSeconds = "2";
constexpr std::chrono::milliseconds kToolDeadline{6000};

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// ---- the master agent's socket ------------------------------------------------------------------------------------

Finding lookAtMaster(const SnmpPlaces& places, const SocketUse& use) {
    const std::string path = printable(places.agentxSocket);
    const std::string about = "agentx socket";
    struct stat found {};
    if (places.agentxSocket.find('/') != 0) {
        return {Verdict::Warn, about, path + " is no path: not looked at", ""};
    }
    if (::stat(places.agentxSocket.c_str(), &found) != 0) {
        return {Verdict::Fail, about, fmt::format("{}: {}", path, std::strerror(errno)),
                "put \"master agentx\" into snmpd.conf and restart snmpd; --agentx tells another place"};
    }
    if (!S_ISSOCK(found.st_mode) || !use.isListening) {
        return {Verdict::Fail, about, fmt::format("nobody listens at {}", path), "restart snmpd"};
    }
    return {Verdict::Ok, about, fmt::format("{} ({})", path, ownerText(places.agentxSocket)), ""};
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
                fmt::format("put \"agentXPerms 0660 0750 root {}\" into snmpd.conf and restart snmpd", user)};
    }
    return {Verdict::Ok, about, user + " may open it", ""};
}

// ---- the sub-agent ------------------------------------------------------------------------------------------------

bool isNumber(const char* name) {
    return *name != '\0' && std::all_of(name, name + std::strlen(name),
                                        [](unsigned char character) { return std::isdigit(character) != 0; });
}

/// @return its process id, as text; empty when it does not run, or cannot be seen
std::string findSubAgent() {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc"), ::closedir);
    while (const dirent* const entry = folder ? ::readdir(folder.get()) : nullptr) {
        if (isNumber(entry->d_name) &&
            readFile(fmt::format("/proc/{}/comm", entry->d_name)) == std::string(kSubAgent) + "\n") {
            return entry->d_name;
        }
    }
    return {};
}

Finding subAgentFinding(const std::string& pid, bool isAnswering, const SocketUse& use) {
    if (isAnswering) {
        return {Verdict::Ok, kSubAgent, "it has joined snmpd and answers", ""};
    }
    if (pid.empty()) {
        return {Verdict::Fail, kSubAgent, "it does not run",
                "systemctl start kxsnmp; why it does not: its lines in the "
                "system log"};
    }
    if (use.connections == 0) {
        return {Verdict::Fail, kSubAgent, fmt::format("it runs (process {}), but has not joined snmpd", pid),
                "let agentXSocket in kxsnmp.conf be what it is in snmpd.conf, and see the rights above"};
    }
    return {Verdict::Ok, kSubAgent,
            fmt::format("it runs (process {}), and snmpd has {} sub-agent connections", pid, use.connections), ""};
}

/// The kernel lists a connection, also the listener's end of it, in the network namespace of who has connected, which
/// the sub-agent has one of its own for.
SocketUse useBy(const std::string& pid, const std::string& path) {
    return pid.empty() ? SocketUse{} : socketUse(readFile(fmt::format("/proc/{}/net/unix", pid)), path);
}

// ---- what a manager sees ------------------------------------------------------------------------------------------

/// The first line that begins like that; empty when there is none.
std::string lineWith(const std::string& text, const std::string& beginning) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(beginning) == 0) {
            return line;
        }
    }
    return {};
}

/// What a tool says before it gives up is in its last line.
std::string lastLine(const std::string& text) {
    std::istringstream lines(text);
    std::string last;
    for (std::string line; std::getline(lines, line);) {
        last = line.empty() ? last : line;
    }
    return last;
}

std::optional<std::string> askNext(const SnmpPlaces& places) {
    return outputOf({"snmpgetnext", "-v2c", "-c", places.community, "-m", "", "-On", "-r", "0", "-t", kAnswerSeconds,
                     places.address, kSubtree},
                    kToolDeadline);
}

Finding viewFinding(const SnmpPlaces& places, const std::string& seen, const std::string& said,
                    const Finding& subAgent) {
    const std::string at = printable(places.address);
    if (!seen.empty()) {
        return {Verdict::Ok, "view", fmt::format("snmpd at {} shows {}", at, kSubtree), ""};
    }
    if (lineWith(said, ".").empty()) {
        const std::string words = printable(lastLine(said));
        return {Verdict::Fail, "view", fmt::format("snmpd at {} does not answer: {}", at, words),
                "is snmpd running; is the community right (--community), and the address (--snmp-address)"};
    }
    if (subAgent.verdict != Verdict::Ok) {
        return {Verdict::Warn, "view", "cannot be told before kxsnmp has joined snmpd", ""};
    }
    return {Verdict::Fail, "view", fmt::format("snmpd at {} does not show {} to this community", at, kSubtree),
            kViewLines};
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

// ---- the MIB module -----------------------------------------------------------------------------------------------

Finding lookForModule() {
    for (const std::string& folder : mibFolders(std::getenv("MIBDIRS"), std::getenv("HOME"))) {
        const std::string path = folder + "/" + kMibFile;
        if (::access(path.c_str(), R_OK) == 0) {
            return {Verdict::Ok, "mib", printable(path), ""};
        }
    }
    return {Verdict::Warn, "mib", fmt::format("no {} where net-snmp's tools look", kMibFile),
            "copy it to /usr/share/snmp/mibs, or name its folder in MIBDIRS; without it there are numbers for names"};
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

std::vector<std::string> mibFolders(const char* mibdirs, const char* home) {
    std::vector<std::string> folders;
    std::string named = mibdirs == nullptr ? "" : mibdirs;
    const bool isMore = named.empty() || named.front() == '+' || named.front() == '-';
    if (isMore && !named.empty()) {
        named.erase(0, 1);
    }
    std::istringstream parts(named);
    for (std::string part; std::getline(parts, part, ':');) {
        folders.push_back(part);
    }
    if (isMore) {
        if (home != nullptr) {
            folders.push_back(std::string(home) + "/.snmp/mibs");
        }
        folders.emplace_back("/usr/share/snmp/mibs");
        folders.emplace_back("/usr/local/share/snmp/mibs");
    }
    return folders;
}

Findings examineSnmp(const SnmpPlaces& places, const std::optional<std::string>& eid) {
    const SocketUse use = socketUse(readFile("/proc/net/unix"), places.agentxSocket);
    const std::string pid = findSubAgent();
    Findings findings{lookAtMaster(places, use)};
    if (findings.back().verdict == Verdict::Ok) {
        findings.push_back(lookAtRights(places));
    }
    const auto said = askNext(places);
    const std::string seen = said ? lineWith(*said, std::string(kSubtree) + ".") : "";
    findings.push_back(subAgentFinding(pid, !seen.empty(), useBy(pid, places.agentxSocket)));
    if (said) {
        findings.push_back(viewFinding(places, seen, *said, findings.back()));
    } else {
        findings.push_back(
            {Verdict::Warn, "view", "cannot be told: there is no snmpgetnext", "apt-get install snmp, which has it"});
    }
    const auto server = seen.empty() ? std::nullopt : serverFinding(seen, eid);
    if (server) {
        findings.push_back(*server);
    }
    findings.push_back(lookForModule());
    return findings;
}

}  // namespace kx::ctl
