#include "ctl/commands/StatusCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <vector>

#include "ctl/AgentConnection.h"
#include "ctl/Json.h"
#include "ctl/Output.h"
#include "ctl/Printable.h"
#include "ctl/view/AgentFacts.h"
#include "ctl/view/Environment.h"
#include "ctl/view/Paint.h"
#include "ctl/view/Terminal.h"
#include "ctl/view/Words.h"

namespace kx::ctl {
namespace {

/// All that is shown.
struct Status {
    std::string agent;  ///< fit for a terminal
    KXLEID server;
    std::optional<std::string> version;
    std::chrono::microseconds roundTrip{0};
    KXLFreshness freshness;
    std::size_t environments = 0;
    std::size_t containers = 0;
    std::size_t unnumbered = 0;
    std::map<std::int32_t, std::size_t> states;  ///< containers by state
};

void count(Status& status, const KXLEnvCache& cache) {
    for (const Environment& one : readEnvironments(cache)) {
        ++status.environments;
        if (one.isContainer()) {
            ++status.containers;
            ++status.states[one.state];
            status.unnumbered += one.veid ? 0 : 1;
        }
    }
}

Status askStatus(const std::string& socket) {
    const AgentConnection connection(socket);
    KXLAccessPointPrototype& agent = connection.accessPoint();
    Status status;
    const int code = measureRoundTrip(agent, status.roundTrip, status.freshness);
    if (code != 0) {
        throw Failure(ExitCode::Unreachable, whyUnreachable(code, socket));
    }
    status.agent = connection.programName();
    status.server = agent.getEID();
    status.version = productVersion(agent);
    count(status, *agent.getEnvCache());
    return status;
}

Json statusJson(const Status& status, const std::string& socket) {
    Json states;
    for (const auto& [state, number] : status.states) {
        states.put(wordOrNumber(stateWord(state), state), number);
    }
    Json containers;
    containers.put("total", status.containers);
    containers.put("by_state", states);
    containers.put("without_number", status.unnumbered);
    Json object;
    object.put("reachable", true);
    object.putText("socket", socket);
    object.put("agent", status.agent);
    object.put("eid", status.server.toString());
    if (status.version) {
        object.putText("product_version", *status.version);
    }
    object.put("round_trip_ms", static_cast<double>(status.roundTrip.count()) / 1000);
    if (status.freshness.ageMs >= 0) {
        object.put("age_ms", status.freshness.ageMs);
        object.put("silent_containers", status.freshness.silentContainers);
    }
    object.put("containers", containers);
    object.put("other_environments", status.environments - status.containers);
    return object;
}

std::string statesText(const Status& status, const Painter& painter) {
    std::string text = std::to_string(status.containers);
    const char* before = ": ";
    for (const auto& [state, number] : status.states) {
        text +=
            before + painter(fmt::format("{} {}", number, wordOrNumber(stateWord(state), state)), statePaint(state));
        before = ", ";
    }
    return status.unnumbered == 0 ? text : text + fmt::format(" ({} without a number)", status.unnumbered);
}

std::string freshnessText(const KXLFreshness& freshness, const Painter& painter) {
    std::string text = fmt::format("compared with the host {:.1f} s ago", static_cast<double>(freshness.ageMs) / 1000);
    if (freshness.silentContainers > 0) {
        text += painter(fmt::format(", {} containers do not answer", freshness.silentContainers), Paint::Yellow);
    }
    return text;
}

std::vector<std::string> statusLines(const Status& status, const std::string& socket, const Painter& painter) {
    std::vector<std::string> lines{
        fmt::format("Agent:       {} at {}", status.agent, printable(socket)),
        fmt::format("Reachable:   {}, it answers in {}", painter("yes", Paint::Green), milliseconds(status.roundTrip)),
        fmt::format("Server EID:  {}", status.server.toString()),
        fmt::format("Product:     {}", status.version ? printable(*status.version) : "(the agent does not tell it)"),
        fmt::format("Containers:  {}", statesText(status, painter)),
        fmt::format("Others:      {}", status.environments - status.containers),
    };
    if (status.freshness.ageMs >= 0) {
        lines.push_back(fmt::format("Up to date:  {}", freshnessText(status.freshness, painter)));
    }
    return lines;
}

ExitCode showUnreachable(const std::string& why, const std::string& socket, Output& output) {
    Json object;
    object.put("reachable", false);
    object.putText("socket", socket);
    object.putText("error", why);
    output.writeLine(object.line());
    return ExitCode::Unreachable;
}

}  // namespace

ExitCode runStatus(const StatusArguments& typed, const CommonOptions& common) {
    Output output(STDOUT_FILENO, -1);
    try {
        const Status status = askStatus(common.socket);
        if (typed.json) {
            output.writeLine(statusJson(status, common.socket).line());
        } else {
            const Painter painter(wantsColors(output.descriptor(), common.noColor));
            output.writeLines(statusLines(status, common.socket, painter));
        }
        return ExitCode::Done;
    } catch (const Failure& failure) {
        if (!typed.json || failure.code() != ExitCode::Unreachable) {
            throw;
        }
        return showUnreachable(failure.what(), common.socket, output);
    }
}

}  // namespace kx::ctl
