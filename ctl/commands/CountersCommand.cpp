#include "ctl/commands/CountersCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <kxa/KXAEnvConfig.h>
#include <kxl/KXLMonitorAgent.h>

#include "ctl/AgentConnection.h"
#include "ctl/Json.h"
#include "ctl/Output.h"
#include "ctl/Printable.h"

namespace kx::ctl {
namespace {

constexpr const char* kHelp = "Shows what the containers' counters stand at";

constexpr const char* kDetails =
    "\nA line for each container and instance: class, container (its number and name), instance, counters.\n"
    "Of a counter that only grows the total is shown, of a level what it is now. CLASS is the name of a counter\n"
    "class of the agent's vocabulary, e.g. counters_kx_net; without it both of the classes of containers are shown.";

constexpr const char* kVocabulary = "KXABasicFunctionality";
constexpr int kIncrease = 2;

/// The options as they were typed.
struct Typed {
    std::string className;
    bool json = false;
};

/// What the vocabulary says of a class.
struct ClassWords {
    std::vector<std::string> order;    ///< the counters' names
    std::map<std::string, int> types;  ///< what is not in it is a level
};

/// @return nothing when the vocabulary does not have the class
std::optional<ClassWords> readClass(const KXLAccessPointPrototype& accessPoint, const std::string& className) {
    const auto vocabulary = accessPoint.getVocabulary(accessPoint.getEID(), kVocabulary);
    const auto parameter = vocabulary ? vocabulary->readCategory(className) : nullptr;
    if (!parameter) {
        return std::nullopt;
    }
    ClassWords words;
    for (int at = parameter->firstParameter(); at == 0; at = parameter->nextParameter()) {
        std::string id;
        if (parameter->getID(id) == 0) {
            words.order.push_back(id);
            parameter->getAttribute("counter_type", words.types[id]);
        }
    }
    return words;
}

std::int64_t valueOf(const ClassWords& words, const std::string& counter, const KXLPerfStat& stat) {
    const auto type = words.types.find(counter);
    const bool isIncrease = type != words.types.end() && type->second == kIncrease;
    return (isIncrease ? stat.value3 : stat.value1).integer;
}

/// A container's counters that the vocabulary names, in its order, and the others behind them.
std::vector<std::pair<std::string, std::int64_t>> inOrder(const ClassWords& words,
                                                          const KXLMonitorData::Counters& counters) {
    std::vector<std::pair<std::string, std::int64_t>> result;
    for (const std::string& name : words.order) {
        const auto found = counters.find(name);
        if (found != counters.end()) {
            result.emplace_back(name, valueOf(words, name, found->second));
        }
    }
    for (const auto& [name, stat] : counters) {
        if (std::find(words.order.begin(), words.order.end(), name) == words.order.end()) {
            result.emplace_back(name, valueOf(words, name, stat));
        }
    }
    return result;
}

/// One line of what is shown.
struct Row {
    std::string className;
    KXLEID eid;
    std::optional<int> veid;
    std::string name;
    std::string instance;
    std::vector<std::pair<std::string, std::int64_t>> counters;
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

std::string jsonLineOf(const Row& row) {
    Json object;
    putText(object, "class", row.className);
    object["eid"] = row.eid.toString();
    if (row.veid) {
        object["veid"] = *row.veid;
    }
    putText(object, "name", row.name);
    putText(object, "instance", row.instance);
    Json counters = Json::object();
    for (const auto& [name, value] : row.counters) {
        counters[name] = value;
    }
    object["counters"] = counters;
    return jsonLine(object);
}

std::vector<KXLMonitorData> ask(KXLAccessPointPrototype& accessPoint, const std::string& className,
                                const std::string& socket) {
    KXLPerfMonAgent agent(accessPoint.getEID(), boost::intrusive_ptr<KXLAccessPointPrototype>(&accessPoint));
    const auto classes = boost::make_shared<KXLPerfMonClassList>();
    (*classes)[className];
    std::vector<KXLMonitorData> data;
    const int code = agent.query(data, {}, classes);
    if (code == KXL_ERROR_REFUSED) {
        throw Failure(ExitCode::Refused, "the agent refused to tell its counters");
    }
    if (code != 0) {
        throw Failure(ExitCode::Unreachable, whyUnreachable(code, socket));
    }
    return data;
}

std::vector<Row> rowsOf(const KXLAccessPointPrototype& accessPoint, const std::string& className,
                        const ClassWords& words, const std::vector<KXLMonitorData>& data) {
    std::vector<Row> rows;
    for (const KXLMonitorData& container : data) {
        const auto environment = accessPoint.getEnvCache()->getEnvCopy(container.eid);
        Row row{className, container.eid, std::nullopt, "", "", {}};
        if (environment) {
            int veid = 0;
            const KXAEnvConfig config(environment->getConfig());
            row.veid = config.getVeid(veid) == 0 ? std::optional(veid) : std::nullopt;
            row.name = config.getCoreBasic()->getText();
        }
        for (const auto& [name, instances] : container.classes) {
            for (const auto& [instance, counters] : instances) {
                row.instance = instance;
                row.counters = inOrder(words, counters);
                rows.push_back(row);
            }
        }
    }
    std::stable_sort(rows.begin(), rows.end(), [](const Row& one, const Row& other) { return one.veid < other.veid; });
    return rows;
}

ExitCode showCounters(const Typed& typed, const std::string& socket) {
    const AgentConnection connection(socket);
    std::vector<std::string> classes = {"counters_kx_quota", "counters_kx_net"};
    if (!typed.className.empty()) {
        classes = {typed.className};
    }
    Output output(STDOUT_FILENO, -1);
    for (const std::string& className : classes) {
        const auto words = readClass(connection.accessPoint(), className);
        if (!words) {
            throw Failure(ExitCode::Refused,
                          fmt::format("the agent has no counter class {}", printableWord(className)));
        }
        const auto data = ask(connection.accessPoint(), className, socket);
        for (const Row& row : rowsOf(connection.accessPoint(), className, *words, data)) {
            if (output.writeLine(typed.json ? jsonLineOf(row) : textLine(row)) != Output::Result::Written) {
                return ExitCode::Done;  // nobody reads any more
            }
        }
    }
    return ExitCode::Done;
}

}  // namespace

void addCountersCommand(CLI::App& app, Selection& selection) {
    CLI::App* const counters = app.add_subcommand("counters", kHelp);
    counters->fallthrough()->footer(kDetails);
    const auto typed = std::make_shared<Typed>();
    counters->add_option("class", typed->className, "The counter class to show")->option_text("CLASS");
    counters->add_flag("--json", typed->json, "Shows each line as one JSON object");
    counters->callback([typed, &selection] {
        selection.run = [typed](const std::string& socket) { return showCounters(*typed, socket); };
    });
}

}  // namespace kx::ctl
