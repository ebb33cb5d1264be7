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
    for (const TextPair& address : allAddresses(environment).value_or(std::vector<TextPair>())) {
        text += (text.empty() ? "" : ",") + printable(address.first);
    }
    return text;
}

std::string veidText(const Environment& one) {
    return one.veid ? std::to_string(*one.veid) : "-";
}

/// A column: its word on the command line, how it is shown, and what is in it.
struct ListColumn {
    const char* word;
    TableColumn column;
    std::string (*text)(const Environment&);
};

const std::vector<ListColumn>& allColumns() {
    static const std::vector<ListColumn> columns{
        {"veid", {"VEID", true, {}}, veidText},
        {"name", {"NAME", false, kLeastText}, [](const Environment& one) { return printable(one.name); }},
        {"hostname",
         {"HOSTNAME", false, kLeastText},
         [](const Environment& one) { return printable(one.hostname.value_or("")); }},
        {"os-template",
         {"OS TEMPLATE", false, kLeastText},
         [](const Environment& one) { return printable(osTemplateText(one)); }},
        {"state", {"STATE", false, {}}, stateText},
        {"transition",
         {"TRANSITION", false, {}},
         [](const Environment& one) { return one.transition == 0 ? "-" : transitionText(one); }},
        {"addresses", {"ADDRESSES", false, kLeastText}, addressesText},
        {"type", {"TYPE", false, kLeastText}, [](const Environment& one) { return printable(one.type); }},
        {"eid", {"EID", false, kLeastText}, [](const Environment& one) { return one.eid.toString(); }},
        {"description", {"DESCRIPTION", false, kLeastText}, [](const Environment& one) {
             return printable(one.description.value_or(""));
         }}};
    return columns;
}

/// Those that are shown unless others are named: with --all also type and identifier.
std::vector<ListColumn> chosenColumns(const ListArguments& typed) {
    constexpr std::ptrdiff_t kUsual = 7;
    constexpr std::ptrdiff_t kOfAll = 9;
    const auto& all = allColumns();
    if (typed.columns.empty()) {
        return {all.begin(), all.begin() + (typed.all ? kOfAll : kUsual)};
    }
    std::vector<ListColumn> chosen;
    for (const std::string& word : typed.columns) {
        chosen.push_back(all[readWord("--columns", word, listColumnWords())]);
    }
    return chosen;
}

Table tableOf(const std::vector<Environment>& environments, const std::vector<ListColumn>& chosen) {
    std::vector<TableColumn> columns;
    columns.reserve(chosen.size());
    for (const ListColumn& one : chosen) {
        columns.push_back(one.column);
    }
    Table table(columns);
    for (const Environment& environment : environments) {
        std::vector<TableCell> row;
        row.reserve(chosen.size());
        for (const ListColumn& one : chosen) {
            row.emplace_back(one.text(environment),
                             one.text == stateText ? statePaint(environment.state) : Paint::None);
        }
        table.add(row);
    }
    return table;
}

/// They come by number.
void sort(std::vector<Environment>& environments, const ListColumn& column, bool isReversed) {
    const auto comesFirst = [&](const Environment& one, const Environment& other) {
        return column.text != veidText && column.text(one) < column.text(other);
    };
    std::stable_sort(environments.begin(), environments.end(), comesFirst);
    if (isReversed) {
        std::reverse(environments.begin(), environments.end());
    }
}

std::vector<Environment> selected(const KXLEnvCache& cache, const ListArguments& typed,
                                  const std::set<std::int32_t>& states) {
    std::vector<Environment> environments = readEnvironments(cache);
    std::erase_if(environments, [&](const Environment& one) { return !typed.all && !(one.isContainer() && one.veid); });
    environments = selectEnvironments(environments, typed.containers);
    std::erase_if(environments,
                  [&](const Environment& one) { return !states.empty() && states.count(one.state) == 0; });
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

std::vector<std::string> listColumnWords() {
    std::vector<std::string> words;
    for (const ListColumn& column : allColumns()) {
        words.emplace_back(column.word);
    }
    return words;
}

ExitCode runList(const ListArguments& typed, const CommonOptions& common) {
    const auto states = readStates(typed.states);
    const auto columns = chosenColumns(typed);
    const ListColumn& sortedBy = allColumns()[readWord("--sort", typed.sort, listColumnWords())];
    const AgentConnection connection(common.socket);
    auto environments = selected(*connection.accessPoint().getEnvCache(), typed, states);
    sort(environments, sortedBy, typed.reverse);
    Output output(STDOUT_FILENO, -1);
    if (typed.json) {
        output.writeLine(listJson(environments).line());
    } else {
        const Painter painter(wantsColors(output.descriptor(), common.noColor));
        output.writeLines(tableOf(environments, columns).lines(tableRoom(output.descriptor()), painter));
    }
    return ExitCode::Done;
}

}  // namespace kx::ctl
