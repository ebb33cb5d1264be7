#include "ctl/commands/ShowCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include "ctl/AgentConnection.h"
#include "ctl/Output.h"
#include "ctl/Printable.h"
#include "ctl/view/Amounts.h"
#include "ctl/view/CounterTable.h"
#include "ctl/view/Counters.h"
#include "ctl/view/Environment.h"
#include "ctl/view/Table.h"
#include "ctl/view/Terminal.h"

namespace kx::ctl {
namespace {

constexpr std::size_t kBarWidth = 22;

// ---- its counters -------------------------------------------------------------------------------------------------

/// What the environment reports; empty when it reports nothing.
KXLMonitorData::Classes countersOf(KXLAccessPointPrototype& agent, const KXLEID& eid, const std::string& socket) {
    for (const KXLMonitorData& one : askCounters(agent, {kQuotaClass, kNetworkClass}, {eid}, socket)) {
        if (one.eid == eid) {
            return one.classes;
        }
    }
    return {};
}

Json countersJson(const KXLAccessPointPrototype& agent, const KXLMonitorData::Classes& classes) {
    Json all;
    for (const auto& [className, instances] : classes) {
        const CounterClass counterClass = readCounterClass(agent, className).value_or(CounterClass{});
        Json list = Json::array();
        for (const auto& [instance, counters] : instances) {
            Json one;
            one.putText("instance", instance);
            one.put("counters", valuesJson(valuesInOrder(counterClass, counters)));
            list.add(one);
        }
        all.put(className, list);
    }
    return all;
}

// ---- text ---------------------------------------------------------------------------------------------------------

std::string orNothing(const std::optional<std::string>& text) {
    return text ? printable(*text) : "-";
}

std::vector<std::string> factLines(const Environment& of, const Painter& painter) {
    const std::string osTemplate = osTemplateText(of);
    return {
        fmt::format("Name:         {}", printable(of.name)),
        fmt::format("VE id:        {}", of.veid ? std::to_string(*of.veid) : "-"),
        fmt::format("EID:          {}", of.eid.toString()),
        fmt::format("Type:         {}", printable(of.type)),
        fmt::format("Host name:    {}", orNothing(of.hostname)),
        fmt::format("Description:  {}", orNothing(of.description)),
        fmt::format("OS template:  {}", osTemplate.empty() ? "-" : printable(osTemplate)),
        fmt::format("Base sample:  {}", orNothing(of.baseSample)),
        fmt::format("State:        {}", painter(stateText(of), statePaint(of.state))),
        fmt::format("Transition:   {}", transitionText(of)),
    };
}

void addList(std::vector<std::string>& lines, const char* title, const std::optional<std::vector<TextPair>>& pairs,
             std::string (*text)(const TextPair&)) {
    if (!pairs || pairs->empty()) {
        lines.push_back(fmt::format("{:<13} {}", title, pairs ? "none" : "-"));
        return;
    }
    for (const TextPair& pair : *pairs) {
        lines.push_back(fmt::format("{:<13} {}", title, text(pair)));
        title = "";
    }
}

std::string templateText(const TextPair& pair) {
    return printableWord(pair.first) + (pair.second.empty() ? "" : " " + printable(pair.second));
}

std::string maskedAddress(const TextPair& pair) {
    return printable(addressText(pair));
}

std::string limitText(std::int64_t limit, std::string (*text)(std::int64_t)) {
    return limit == 0 ? "none" : text(limit);
}

void addQuotaRow(Table& table, const std::string& instance, const std::string& what, const KXLMonitorData::Counters& of,
                 std::string (*text)(std::int64_t)) {
    const auto quota = quotaOf(of, what);
    if (!quota) {
        return;
    }
    std::string use = quota->limit() == 0 ? "no limit" : "-";
    Paint paint = Paint::Faint;
    if (const auto percent = quota->percent()) {
        use = fmt::format("{} {:>3}%", bar(*percent, kBarWidth), *percent);
        paint = percentPaint(*percent);
    }
    table.add({{instance.empty() ? what : fmt::format("{} {}", printable(instance), what)},
               {quota->used ? text(*quota->used) : kUnknown},
               {limitText(quota->soft, text)},
               {limitText(quota->hard, text)},
               {quota->grace == 0 ? "-" : durationText(quota->grace)},
               {use, paint}});
}

Table quotaTable(const KXLMonitorData::Instances& instances) {
    Table table({{"QUOTA", false, 5},
                 {"USED", true, {}},
                 {"SOFT", true, {}},
                 {"HARD", true, {}},
                 {"GRACE", true, {}},
                 {"USE", false, {}}});
    for (const auto& [instance, counters] : instances) {
        addQuotaRow(table, instance, "diskspace", counters, bytesText);
        addQuotaRow(table, instance, "inodes", counters, countText);
    }
    return table;
}

/// Every counter with its exact value: a class of which nothing more is known is shown so too.
Table instancesTable(const std::string& title, const CounterClass& counterClass,
                     const KXLMonitorData::Instances& instances) {
    std::vector<CounterRow> rows;
    for (const auto& [instance, counters] : instances) {
        rows.push_back({{{instance.empty() ? "-" : printable(instance)}}, valuesInOrder(counterClass, counters)});
    }
    return counterTable({{title, false, 4}}, counterClass.order, rows, Amounts::Exact);
}

void append(std::vector<std::string>& lines, const std::vector<std::string>& more) {
    lines.emplace_back();
    lines.insert(lines.end(), more.begin(), more.end());
}

std::vector<std::string> counterLines(const KXLAccessPointPrototype& agent, const KXLMonitorData::Classes& classes,
                                      std::optional<std::size_t> room, const Painter& painter) {
    std::vector<std::string> lines;
    for (const auto& [className, instances] : classes) {
        const CounterClass counterClass = readCounterClass(agent, className).value_or(CounterClass{});
        if (className == kQuotaClass) {
            append(lines, quotaTable(instances).lines(room, painter));
        } else {
            const std::string title = className == kNetworkClass ? "INTERFACE" : printable(className);
            append(lines, instancesTable(title, counterClass, instances).lines(room, painter));
        }
    }
    if (lines.empty()) {
        lines = {"", "It reports no counters now."};
    }
    return lines;
}

}  // namespace

ExitCode runShow(const ShowArguments& typed, const CommonOptions& common) {
    const AgentConnection connection(common.socket);
    KXLAccessPointPrototype& agent = connection.accessPoint();
    const Environment environment = chooseEnvironment(readEnvironments(*agent.getEnvCache()), typed.word);
    const auto classes = countersOf(agent, environment.eid, common.socket);
    Output output(STDOUT_FILENO, -1);
    if (typed.json) {
        Json document = environmentJson(environment);
        document.put("counters", countersJson(agent, classes));
        output.writeLine(document.line());
        return ExitCode::Done;
    }
    const Painter painter(wantsColors(output.descriptor(), common.noColor));
    std::vector<std::string> lines = factLines(environment, painter);
    addList(lines, "Addresses:", allAddresses(environment), maskedAddress);
    addList(lines, "Templates:", environment.templates, templateText);
    const auto counters = counterLines(agent, classes, tableRoom(output.descriptor()), painter);
    lines.insert(lines.end(), counters.begin(), counters.end());
    output.writeLines(lines);
    return ExitCode::Done;
}

}  // namespace kx::ctl
