#include "ctl/doctor/AgentChecks.h"

#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>

#include <boost/make_shared.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>

#include "ctl/AgentConnection.h"
#include "ctl/ExitCode.h"
#include "ctl/Printable.h"
#include "ctl/doctor/FileAccess.h"
#include "ctl/doctor/FirstReport.h"
#include "ctl/view/AgentFacts.h"
#include "ctl/view/Counters.h"
#include "ctl/view/Environment.h"

namespace kx::ctl {
namespace {

constexpr const char* kStart =
    "start the agent: systemctl start kxagentd; why it does not stay: journalctl -u kxagentd";

/// A period of a second, which the agent may scale, and some time to spare.
constexpr int kPeriodSeconds = 1;
constexpr std::chrono::milliseconds kReportDeadline{5000};
constexpr int kRunning = 2;
constexpr mode_t kOthersWrite = 2;

Finding lookAtSocket(const std::string& socket, const std::string& path) {
    struct stat found {};
    if (::stat(socket.c_str(), &found) != 0) {
        return {Verdict::Fail, "agent socket", fmt::format("{}: {}", path, std::strerror(errno)), kStart};
    }
    if (!S_ISSOCK(found.st_mode)) {
        return {Verdict::Fail, "agent socket", path + " is not a socket", "remove it, and " + std::string(kStart)};
    }
    const std::string owner = ownerText(socket);
    if ((found.st_mode & kOthersWrite) != 0) {
        return {Verdict::Warn, "agent socket", fmt::format("{} ({}): everybody may open it", path, owner),
                "restart the agent, which makes it anew for root and its group"};
    }
    return {Verdict::Ok, "agent socket", fmt::format("{} ({})", path, owner), ""};
}

Finding lookAtRights(const std::string& socket) {
    const auto obstacle = obstacleTo(socket, ownIdentity());
    if (obstacle) {
        return {Verdict::Fail, "rights",
                fmt::format("you may not use {} ({})", printable(*obstacle), ownerText(*obstacle)),
                "run this as root, or add yourself to the group: usermod -aG kxagent USER; then log in again"};
    }
    if (::getgrnam(kAgentGroup) == nullptr) {
        return {Verdict::Warn, "rights",
                fmt::format("you may open it; others than root and the agent may not, for "
                            "there is no group {}",
                            kAgentGroup),
                fmt::format("addgroup --system {}, and restart the agent", kAgentGroup)};
    }
    return {Verdict::Ok, "rights", fmt::format("you may open it; others: members of the group {}", kAgentGroup), ""};
}

std::string listOf(const std::set<std::string>& names) {
    constexpr std::size_t kMost = 5;
    std::string text;
    std::size_t shown = 0;
    for (const std::string& name : names) {
        if (shown++ == kMost) {
            return text + fmt::format(" and {} more", names.size() - kMost);
        }
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

/// Running containers of which the report has nothing.
std::set<std::string> silentOnes(const KXLEnvCache& cache, const std::vector<KXLMonitorData>& report) {
    std::set<KXLEID> reported;
    for (const KXLMonitorData& one : report) {
        reported.insert(one.eid);
    }
    std::set<std::string> silent;
    for (const Environment& one : readEnvironments(cache)) {
        if (one.isContainer() && one.state == kRunning && reported.count(one.eid) == 0) {
            silent.insert(idText(one));
        }
    }
    return silent;
}

/// Containers of which the agent does not know how much disk space they use.
std::set<std::string> withUnknownUse(const KXLEnvCache& cache, const std::vector<KXLMonitorData>& report) {
    std::set<std::string> names;
    for (const KXLMonitorData& one : report) {
        const auto found = one.classes.find(kQuotaClass);
        const bool isUnknown = found != one.classes.end() && !found->second.empty() &&
                               !quotaOf(found->second.begin()->second, "diskspace").value_or(QuotaUse{}).used;
        if (const auto environment = isUnknown ? cache.getEnvCopy(one.eid) : nullptr) {
            names.insert(idText(readEnvironment(*environment)));
        }
    }
    return names;
}

Finding usageFinding(const std::set<std::string>& unknown) {
    if (unknown.empty()) {
        return {Verdict::Ok, "disk usage", "known of all containers that report", ""};
    }
    return {
        Verdict::Warn, "disk usage",
        fmt::format("unknown of {}: nothing counts it separately for them, neither a project quota nor a btrfs quota "
                    "group nor a file system of their own",
                    listOf(unknown)),
        "turn project quotas on (see quotas below) and make each root folder a project: chattr -R -p NUMBER FOLDER; "
        "find FOLDER -type d -exec chattr +P {} +; or, where each is a btrfs subvolume, btrfs quota enable; or put "
        "each "
        "container on a file system of its own"};
}

Findings lookAtSamples(KXLAccessPointPrototype& agent) {
    const boost::intrusive_ptr<FirstReport> handler(new FirstReport);
    const auto classes = boost::make_shared<KXLPerfMonClassList>();
    (*classes)[kQuotaClass];
    (*classes)[kNetworkClass];
    KXLMonitorAgent monitor(agent.getEID(), boost::intrusive_ptr<KXLAccessPointPrototype>(&agent));
    monitor.getRequest().getContext()->setHandler(handler);
    monitor.getRequest().getContext()->setSynchronous(false);
    std::set<KXLEID> without;
    const auto start = std::chrono::steady_clock::now();
    const int code = monitor.startMonitoring({}, classes, kPeriodSeconds, without, 0);
    const auto report = code == 0 ? handler->wait(kReportDeadline) : std::nullopt;
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    handler->stop();
    if (!report) {
        return {{Verdict::Fail, "samples", fmt::format("no sample of counters has come within {:.1f} s", took.count()),
                 "see period_scale in kxagentd.toml, and the agent's log: journalctl -u kxagentd"}};
    }
    const Finding usage = usageFinding(withUnknownUse(*agent.getEnvCache(), *report));
    const auto silent = silentOnes(*agent.getEnvCache(), *report);
    const std::string words = fmt::format(
        "the last sample is new: asked for, it came after {:.1f} s, with {} containers", took.count(), report->size());
    if (!silent.empty()) {
        return {{Verdict::Warn, "samples", fmt::format("{}; running, but not in it: {}", words, listOf(silent)),
                 "where that stays so, see the agent's log: journalctl -u kxagentd"},
                usage};
    }
    return {{Verdict::Ok, "samples", words, ""}, usage};
}

void askAgent(AgentReport& report, const std::string& socket) {
    const AgentConnection connection(socket);
    KXLAccessPointPrototype& agent = connection.accessPoint();
    report.eid = agent.getEID().toString();
    std::chrono::microseconds took{};
    KXLFreshness freshness;
    const int code = measureRoundTrip(agent, took, freshness);
    if (code != 0) {
        report.findings.push_back({Verdict::Fail, "agent", whyUnreachable(code, socket), kStart});
        return;
    }
    report.findings.push_back({Verdict::Ok, "agent", fmt::format("it answers in {}", milliseconds(took)), ""});
    report.findings.push_back(compareVersions("kxctl " KX_VERSION, connection.programName()));
    const Findings samples = lookAtSamples(agent);
    report.findings.insert(report.findings.end(), samples.begin(), samples.end());
}

}  // namespace

Finding compareVersions(const std::string& own, const std::string& agent) {
    const auto version = [](const std::string& program) { return program.substr(program.rfind(' ') + 1); };
    const std::string words = fmt::format("{}, agent {}", own, agent.empty() ? "(it does not tell)" : agent);
    if (version(own) == version(agent)) {
        return {Verdict::Ok, "versions", words, ""};
    }
    return {Verdict::Warn, "versions", words,
            "install both from the same release, and restart the agent: systemctl restart kxagentd"};
}

AgentReport examineAgent(const std::string& socket) {
    AgentReport report;
    report.findings.push_back(lookAtSocket(socket, printable(socket)));
    if (report.findings.back().verdict == Verdict::Fail) {
        return report;
    }
    report.findings.push_back(lookAtRights(socket));
    const bool isAllowed = report.findings.back().verdict != Verdict::Fail;
    try {
        askAgent(report, socket);
    } catch (const Failure& failure) {
        report.findings.push_back(
            {Verdict::Fail, "agent", failure.what(), isAllowed ? kStart : "see the rights above"});
    }
    return report;
}

}  // namespace kx::ctl
