#include "ctl/commands/ListCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <set>

#include "ctl/AgentConnection.h"
#include "ctl/Numbers.h"
#include "ctl/Output.h"
#include "ctl/Printable.h"
#include "ctl/view/Environment.h"
#include "ctl/view/Table.h"
#include "ctl/view/Terminal.h"
#include "ctl/view/Words.h"

namespace kx::ctl {
namespace {

/// What texts may shrink to before numbers do.
constexpr std::size_t kLeastText = 8;

std::set<std::int32_t> readStates(const std::vector<std::string>& typed) {
    std::set<std::int32_t> states;
    for (const std::string& word : typed) {
        const auto state = stateOf(word);
        states.insert(
            state ? *state
                  : static_cast<std::int32_t>(readNumber("--state", word, std::numeric_limits<std::int32_t>::min(),
                                                         std::numeric_limits<std::int32_t>::max())));
    }
    return states;
}

std::string addressesText(const Environment& environment) {
    std::string text;
    for (const TextPair& address : environment.addresses.value_or(std::vector<TextPair>())) {
        text += (text.empty() ? "" : ",") + printable(address.first);
    }
    return text;
}

Table tableOf(const std::vector<Environment>& environments, bool all) {
    std::vector<TableColumn> columns{{"VEID", true, {}},
                                     {"NAME", false, kLeastText},
                                     {"HOSTNAME", false, kLeastText},
                                     {"OS TEMPLATE", false, kLeastText},
                                     {"STATE", false, {}},
                                     {"TRANSITION", false, {}},
                                     {"ADDRESSES", false, kLeastText}};
    if (all) {
        columns.push_back({"TYPE", false, kLeastText});
        columns.push_back({"EID", false, kLeastText});
    }
    Table table(columns);
    for (const Environment& one : environments) {
        std::vector<TableCell> row{{one.veid ? std::to_string(*one.veid) : "-"},
                                   {printable(one.name)},
                                   {printable(one.hostname.value_or(""))},
                                   {printable(osTemplateText(one))},
                                   {stateText(one), statePaint(one.state)},
                                   {one.transition == 0 ? "-" : transitionText(one)},
                                   {addressesText(one)}};
        if (all) {
            row.emplace_back(printable(one.type));
            row.emplace_back(one.eid.toString());
        }
        table.add(row);
    }
    return table;
}

std::vector<Environment> selected(const KXLEnvCache& cache, bool all, const std::set<std::int32_t>& states) {
    std::vector<Environment> environments = readEnvironments(cache);
    std::erase_if(environments, [&](const Environment& one) {
        const bool isShown = all || (one.isContainer() && one.veid);
        return !isShown || (!states.empty() && states.count(one.state) == 0);
    });
    return environments;
}

Json listJson(const std::vector<Environment>& environments) {
    Json list = Json::array();
    for (const Environment& one : environments) {
        list.add(environmentJson(one));
    }
    Json document;
    document.put("environments", list);
    return document;
}

}  // namespace

ExitCode runList(const ListArguments& typed, const CommonOptions& common) {
    const auto states = readStates(typed.states);
    const AgentConnection connection(common.socket);
    const auto environments = selected(*connection.accessPoint().getEnvCache(), typed.all, states);
    Output output(STDOUT_FILENO, -1);
    if (typed.json) {
        output.writeLine(listJson(environments).line());
    } else {
        const Painter painter(wantsColors(output.descriptor(), common.noColor));
        output.writeLines(tableOf(environments, typed.all).lines(tableRoom(output.descriptor()), painter));
    }
    return ExitCode::Done;
}

}  // namespace kx::ctl
