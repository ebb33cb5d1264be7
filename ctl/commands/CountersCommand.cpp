#include "ctl/commands/CountersCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "ctl/AgentConnection.h"
#include "ctl/Output.h"
#include "ctl/Printable.h"
#include "ctl/view/CounterTable.h"
#include "ctl/view/Counters.h"
#include "ctl/view/Environment.h"
#include "ctl/view/Terminal.h"

namespace kx::ctl {
namespace {

constexpr std::size_t kLeastName = 8;

/// One line of what is shown.
struct Row {
    Environment environment;
    std::string instance;
    NamedValues counters;
};

/// A class, in the order of the containers.
struct Shown {
    std::string className;
    CounterClass counterClass;
    std::vector<Row> rows;
};

Json rowJson(const std::string& className, const Row& row) {
    Json object;
    object.putText("class", className);
    object.put("eid", row.environment.eid.toString());
    if (row.environment.veid) {
        object.put("veid", *row.environment.veid);
    }
    object.putText("name", row.environment.name);
    object.putText("instance", row.instance);
    object.put("counters", valuesJson(row.counters));
    return object;
}

Json documentOf(const std::vector<Shown>& classes) {
    Json list = Json::array();
    for (const Shown& shown : classes) {
        for (const Row& row : shown.rows) {
            list.add(rowJson(shown.className, row));
        }
    }
    Json document;
    document.put("counters", list);
    return document;
}

/// @param report what came of one container
void addRows(Shown& to, const Environment& environment, const KXLMonitorData& report) {
    const auto found = report.classes.find(to.className);
    if (found == report.classes.end()) {
        return;
    }
    for (const auto& [instance, counters] : found->second) {
        to.rows.push_back({environment, instance, valuesInOrder(to.counterClass, counters)});
    }
}

/// @param asked whose reports are asked for; empty: everybody's
Shown readClass(KXLAccessPointPrototype& agent, const std::string& className,
                const std::vector<Environment>& environments, const std::set<KXLEID>& asked,
                const std::string& socket) {
    const auto counterClass = readCounterClass(agent, className);
    if (!counterClass) {
        throw Failure(ExitCode::Refused, fmt::format("the agent has no counter class {}", printableWord(className)));
    }
    std::map<KXLEID, KXLMonitorData> reports;
    for (const KXLMonitorData& report : askCounters(agent, {className}, asked, socket)) {
        reports[report.eid] = report;
    }
    Shown shown{className, *counterClass, {}};
    for (const Environment& one : environments) {
        addRows(shown, one, reports[one.eid]);
    }
    return shown;
}

Table tableOf(const Shown& shown, Amounts amounts) {
    const bool hasInstances =
        std::any_of(shown.rows.begin(), shown.rows.end(), [](const Row& row) { return !row.instance.empty(); });
    std::vector<TableColumn> columns{{"VEID", true, {}}, {"NAME", false, kLeastName}};
    if (hasInstances) {
        columns.push_back({"INSTANCE", false, {}});
    }
    std::vector<CounterRow> rows;
    for (const Row& row : shown.rows) {
        const Environment& of = row.environment;
        CounterRow made{{{of.veid ? std::to_string(*of.veid) : "-"}, {printable(of.name)}}, row.counters};
        if (hasInstances) {
            made.cells.emplace_back(printable(row.instance));
        }
        rows.push_back(std::move(made));
    }
    return counterTable(std::move(columns), shown.counterClass.order, rows, amounts);
}

std::vector<std::string> linesOf(const std::vector<Shown>& classes, Amounts amounts, std::optional<std::size_t> room,
                                 const Painter& painter) {
    std::vector<std::string> lines;
    for (const Shown& shown : classes) {
        if (!lines.empty()) {
            lines.emplace_back();
        }
        lines.push_back(painter(printable(shown.className), Paint::Bold));
        const auto table = tableOf(shown, amounts).lines(room, painter);
        lines.insert(lines.end(), table.begin(), table.end());
    }
    return lines;
}

}  // namespace

ExitCode runCounters(const CountersArguments& typed, const CommonOptions& common) {
    const AgentConnection connection(common.socket);
    KXLAccessPointPrototype& agent = connection.accessPoint();
    const auto environments = selectEnvironments(readEnvironments(*agent.getEnvCache()), typed.containers);
    std::set<KXLEID> asked;
    for (const Environment& one : typed.containers.empty() ? std::vector<Environment>() : environments) {
        asked.insert(one.eid);
    }
    std::vector<std::string> names = {kQuotaClass, kNetworkClass};
    if (!typed.className.empty()) {
        names = {typed.className};
    }
    std::vector<Shown> classes;
    classes.reserve(names.size());
    for (const std::string& name : names) {
        classes.push_back(readClass(agent, name, environments, asked, common.socket));
    }
    Output output(STDOUT_FILENO, -1);
    if (typed.json) {
        output.writeLine(documentOf(classes).line());
        return ExitCode::Done;
    }
    const Painter painter(wantsColors(output.descriptor(), common.noColor));
    output.writeLines(
        linesOf(classes, typed.exact ? Amounts::Exact : Amounts::Readable, tableRoom(output.descriptor()), painter));
    return ExitCode::Done;
}

}  // namespace kx::ctl
