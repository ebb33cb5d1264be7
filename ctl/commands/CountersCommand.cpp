#include "ctl/commands/CountersCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "ctl/AgentConnection.h"
#include "ctl/Output.h"
#include "ctl/Printable.h"
#include "ctl/view/Counters.h"
#include "ctl/view/Environment.h"

namespace kx::ctl {
namespace {

/// One line of what is shown.
struct Row {
    std::string className;
    KXLEID eid;
    std::optional<std::int32_t> veid;
    std::string name;
    std::string instance;
    NamedValues counters;
};

std::string textLine(const Row& row) {
    const std::string container = row.veid ? fmt::format("{} {}", *row.veid, printable(row.name)) : row.eid.toString();
    std::string line = fmt::format("{}  {}", printable(row.className), container);
    if (!row.instance.empty()) {
        line += fmt::format("  [{}]", printable(row.instance));
    }
    for (const auto& [name, value] : row.counters) {
        line += fmt::format("  {}={}", printable(name), value);
    }
    return line;
}

Json rowJson(const Row& row) {
    Json object;
    object.putText("class", row.className);
    object.put("eid", row.eid.toString());
    if (row.veid) {
        object.put("veid", *row.veid);
    }
    object.putText("name", row.name);
    object.putText("instance", row.instance);
    object.put("counters", valuesJson(row.counters));
    return object;
}

void addRows(std::vector<Row>& rows, const KXLAccessPointPrototype& agent, const CounterClass& counterClass,
             const KXLMonitorData& container) {
    Row row{"", container.eid, std::nullopt, "", "", {}};
    if (const auto environment = agent.getEnvCache()->getEnvCopy(container.eid)) {
        const Environment read = readEnvironment(*environment);
        row.veid = read.veid;
        row.name = read.name;
    }
    for (const auto& [className, instances] : container.classes) {
        row.className = className;
        for (const auto& [instance, counters] : instances) {
            row.instance = instance;
            row.counters = valuesInOrder(counterClass, counters);
            rows.push_back(row);
        }
    }
}

std::vector<Row> rowsOf(KXLAccessPointPrototype& agent, const std::string& className, const std::string& socket) {
    const auto counterClass = readCounterClass(agent, className);
    if (!counterClass) {
        throw Failure(ExitCode::Refused, fmt::format("the agent has no counter class {}", printableWord(className)));
    }
    std::vector<Row> rows;
    for (const KXLMonitorData& container : askCounters(agent, {className}, {}, socket)) {
        addRows(rows, agent, *counterClass, container);
    }
    std::stable_sort(rows.begin(), rows.end(), [](const Row& one, const Row& other) { return one.veid < other.veid; });
    return rows;
}

void show(const std::vector<Row>& rows, bool json) {
    Output output(STDOUT_FILENO, -1);
    if (json) {
        Json list = Json::array();
        for (const Row& row : rows) {
            list.add(rowJson(row));
        }
        Json document;
        document.put("counters", list);
        output.writeLine(document.line());
        return;
    }
    for (const Row& row : rows) {
        if (output.writeLine(textLine(row)) != Output::Result::Written) {
            return;  // nobody reads any more
        }
    }
}

}  // namespace

ExitCode runCounters(const CountersArguments& typed, const CommonOptions& common) {
    const AgentConnection connection(common.socket);
    std::vector<std::string> classes = {kQuotaClass, kNetworkClass};
    if (!typed.className.empty()) {
        classes = {typed.className};
    }
    std::vector<Row> rows;
    for (const std::string& className : classes) {
        const std::vector<Row> more = rowsOf(connection.accessPoint(), className, common.socket);
        rows.insert(rows.end(), more.begin(), more.end());
    }
    show(rows, typed.json);
    return ExitCode::Done;
}

}  // namespace kx::ctl
