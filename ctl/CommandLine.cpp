#include "ctl/CommandLine.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "ctl/AgentConnection.h"
#include "ctl/commands/AlertCommand.h"
#include "ctl/commands/CountersCommand.h"
#include "ctl/commands/DoctorCommand.h"
#include "ctl/commands/EventsCommand.h"
#include "ctl/commands/ListCommand.h"
#include "ctl/commands/ShowCommand.h"
#include "ctl/commands/StatusCommand.h"
#include "ctl/commands/TopCommand.h"
#include "ctl/top/TopRows.h"
#include "ctl/view/Counters.h"

// The header of the command line's library takes seconds to compile: only this file and Program.cpp include it.
namespace kx::ctl {
namespace {

constexpr const char* kFooter =
    "\nExit status: 0 done; 1 the agent refused, or what was asked for is not there;\n"
    "2 wrong usage; 3 the agent cannot be reached.\n"
    "kxctl COMMAND --help tells more of a command, kxctl(1) everything.";

/// An option's check, in the form the command line's library has.
std::string socketPathProblem(const std::string& path) {
    if (path.empty() || path.size() > kMaxSocketPathBytes) {
        return fmt::format("the path of a socket has 1 to {} bytes, this one {}", kMaxSocketPathBytes, path.size());
    }
    return {};
}

/// @brief Adds a command.
/// @param run takes the options as they were typed, and what is common to all
/// @return the command, and where its options are put
template <typename Arguments>
std::pair<CLI::App*, std::shared_ptr<Arguments>> addCommand(CLI::App& to, Selection& selection, const char* name,
                                                            const char* help, const char* details,
                                                            ExitCode (*run)(const Arguments&, const CommonOptions&)) {
    CLI::App* const command = to.add_subcommand(name, help);
    command->fallthrough()->footer(details);
    const auto typed = std::make_shared<Arguments>();
    command->callback([typed, run, &selection] {
        selection.run = [typed, run](const CommonOptions& common) { return run(*typed, common); };
    });
    return {command, typed};
}

/// An option that may be left away. The library takes an empty text for one that was.
void addOptional(CLI::App& command, const std::string& names, std::optional<std::string>& into, const char* shown,
                 const char* help) {
    command
        .add_option_function<std::string>(
            names, [&into](const std::string& text) { into = text; }, help)
        ->option_text(shown);
}

void addStatus(CLI::App& app, Selection& selection) {
    const auto [command, typed] =
        addCommand(app, selection, "status", "Shows how the agent and its containers are",
                   "\nThe agent's name and version, how long it takes to answer, the server's "
                   "identifier, the product version, and\nhow many containers are in which "
                   "state. Exit status 3 when the agent cannot be reached.",
                   runStatus);
    command->add_flag("--json", typed->json, "Shows it as one JSON document");
}

void addList(CLI::App& app, Selection& selection) {
    const auto [command, typed] =
        addCommand(app, selection, "list", "Shows the containers, a line each",
                   "\nVE is a number, a name, an identifier, or a pattern of numbers or names (\"web*\"); without one "
                   "all are shown.\n"
                   "Columns become narrower on a narrow terminal, an ellipsis standing for what is cut off.",
                   runList);
    command->add_option("ve", typed->containers, "Shows only these containers")->option_text("VE...");
    command->add_flag("-a,--all", typed->all,
                      "Shows environments of other types, and containers without a number, too");
    command
        ->add_option("-s,--state", typed->states,
                     "Shows only those in this state: unknown, stopped, running, frozen, or a number; may be repeated")
        ->option_text("STATE")
        ->type_size(1)
        ->allow_extra_args(false)
        ->delimiter(',');
    const std::string words = fmt::format("{}", fmt::join(listColumnWords(), ", "));
    command->add_option("--sort", typed->sort, fmt::format("Sorts by a column: {} (default: veid)", words))
        ->option_text("COLUMN");
    command->add_flag("-r,--reverse", typed->reverse, "Sorts in the opposite order");
    auto* const columns = command->add_option("--columns", typed->columns, "Shows these columns, in this order")
                              ->option_text("COLUMN,...")
                              ->type_size(1)
                              ->allow_extra_args(false)
                              ->delimiter(',');
    command->add_flag("--json", typed->json, "Shows them as one JSON document")->excludes(columns);
}

void addShow(CLI::App& app, Selection& selection) {
    const auto [command, typed] =
        addCommand(app, selection, "show", "Shows all that is known of a container",
                   "\nVE is its number, its name or its identifier. A number below 0 needs \"--\" in front of it.\n"
                   "Exit status 1 when there is none, or more than one.",
                   runShow);
    command->add_option("ve", typed->word, "The container")->option_text("VE")->required();
    command->add_flag("--json", typed->json, "Shows it as one JSON document");
}

void addEvents(CLI::App& app, Selection& selection) {
    const auto [command, typed] = addCommand(
        app, selection, "events", "Shows alerts and changes of containers as they happen",
        "\nA line for each event: time, kind (alert, change), container (its number and name, its identifier where it\n"
        "has no number, or \"host\"), severity or state, value, text.\n"
        "\n"
        "Follows until it is interrupted or --count events were shown, and connects again when the agent was away.\n"
        "Events from before the subscription are shown with --since, as far back as the agent still has them; those "
        "while\n"
        "it is not connected are not. The state of the subscription is reported on standard error.\n"
        "\n"
        "Keys of --filter: kind (alert, change), severity (clear, warning, critical), change (added, modified, "
        "removed),\n"
        "state (unknown, stopped, running, frozen), ve (a number, a name, an identifier, \"host\", or a pattern). "
        "Values of\n"
        "the same key are alternatives.",
        runEvents);
    addOptional(*command, "--since", typed->since, "TIME",
                "Shows events from then on first: 10m, 2h, 23:05, \"2026-11-21 23:05\"");
    command->add_option("--filter", typed->filter, "Shows only matching events; may be repeated")
        ->option_text("KEY=VALUE")
        ->type_size(1)
        ->allow_extra_args(false);
    command->add_flag("--json", typed->json, "Shows each event as one JSON object a line");
    addOptional(*command, "-n,--count", typed->count, "N", "Ends after this many events");
}

void addCounters(CLI::App& app, Selection& selection) {
    const auto [command, typed] =
        addCommand(app, selection, "counters", "Shows the containers' counters",
                   "\nA table for each class, a line for each container and instance. A counter that only grows shows "
                   "its total, a\n"
                   "level its present value. VE is as for list; without one all containers are shown.",
                   runCounters);
    command->add_option("ve", typed->containers, "Shows only these containers")->option_text("VE...");
    command
        ->add_option(
            "--class", typed->className,
            fmt::format("A counter class of the agent's vocabulary (default: {} and {})", kQuotaClass, kNetworkClass))
        ->option_text("CLASS");
    auto* const exact = command->add_flag("--exact", typed->exact, "Shows exact numbers instead of readable sizes");
    command->add_flag("--json", typed->json, "Shows all as one JSON document, with exact numbers")->excludes(exact);
}

void addTop(CLI::App& app, Selection& selection) {
    const auto [command, typed] = addCommand(
        app, selection, "top", "Shows what the containers are doing, again and again",
        "\nTraffic a second, disk space and quota of each container, and the latest alerts. On a terminal in place; "
        "? shows\n"
        "the keys. Elsewhere, and with --json, --once or --count, samples are written below each other.",
        runTop);
    command->add_option("--sort", typed->sort, fmt::format("{} (default: in)", fmt::join(topOrderWords(), ", ")))
        ->option_text("COLUMN");
    command->add_flag("-r,--reverse", typed->reverse, "Sorts the other way round");
    command->add_option("-i,--interval", typed->interval, "From one sample to the next, 0.1 to 3600 (default: 2)")
        ->option_text("SECONDS");
    addOptional(*command, "-n,--count", typed->count, "N", "Ends after this many samples");
    command->add_flag("--once", typed->once, "Shows one sample and ends")->excludes(command->get_option("--count"));
    command->add_flag("--json", typed->json, "Shows each sample as one JSON document a line");
}

void addDoctor(CLI::App& app, Selection& selection) {
    const auto [command, typed] =
        addCommand(app, selection, "doctor", "Looks for what keeps the containers from being seen",
                   "\nA line for each check: OK, WARN or FAIL, what was checked, the result, and what to do. Run it as "
                   "root to check\n"
                   "everything. Exit status 1 when something fails; warnings do not count.\n"
                   "\n"
                   "The SNMP agent is asked as community \"public\", then as the default user of snmp.conf(5). Options "
                   "of snmpget(1)\n"
                   "behind \"--\" replace that: kxctl doctor -- -v3 -u USER -l authPriv -a SHA -A ... -x AES -X ...",
                   runDoctor);
    SnmpPlaces& places = typed->places;
    const std::vector<std::tuple<const char*, std::string*, const char*, std::string>> options{
        {"--agentx", &places.agentxSocket, "PATH", "The master agent's socket"},
        {"--snmp-address", &places.address, "ADDRESS", "Where the SNMP agent is asked"},
        {"--user", &places.user, "NAME", "The user that kxsnmp runs as"},
        {"--lxc-path", &typed->lxcFolder, "PATH", "Where the containers are"},
    };
    for (const auto& [name, into, shown, help] : options) {
        command->add_option(name, *into, fmt::format("{} (default: {})", help, *into))->option_text(shown);
    }
    addOptional(*command, "--community", places.community, "NAME", "The SNMPv2c community to ask as");
    command->add_option("snmp-options", places.options, "Options of snmpget(1), behind \"--\"")
        ->option_text("OPTION...")
        ->excludes(command->get_option("--community"));
    command->add_flag("--json", typed->json, "Shows the report as one JSON document");
}

void addAlert(CLI::App& app, Selection& selection) {
    CLI::App* const alert = app.add_subcommand("alert", "Raises alerts, for trying out what becomes of them");
    alert->require_subcommand(1)->fallthrough();
    const auto [command, typed] = addCommand(
        *alert, selection, "raise", "Has the agent report an alert, as if it had happened",
        "\nOnly an agent that shows a described host does so. Exactly one of --ve, --eid and --host is needed.\n"
        "\n"
        "The agent treats it like every alert: one that is equal to an earlier one (same target, code and text) is "
        "not\n"
        "told again for a while, but counted.",
        runAlertRaise);
    addOptional(*command, "--ve", typed->container, "VE", "The container it is about: its number or name");
    addOptional(*command, "--eid", typed->eid, "UUID", "The environment it is about, by its identifier; any will do");
    command->add_flag("--host", typed->host, "It is about the host itself");
    command->add_option("--code", typed->code, "0 clear, 1 warning, 2 critical; any 32-bit number is passed on")
        ->option_text("N")
        ->required();
    command->add_option("--value", typed->value, "What the text is about: a count or an amount, 64 bits (default: 0)")
        ->option_text("N");
    auto* const text =
        command->add_option("--text", typed->text, "What the alert says (default: nothing)")->option_text("TEXT");
    addOptional(*command, "--text-file", typed->textFile, "FILE",
                "Takes the text from a file, byte for byte; -: standard input");
    command->get_option("--text-file")->excludes(text);
    command
        ->add_option("--repeat", typed->repeat, "Raises it this many times, as fast as the agent answers (default: 1)")
        ->option_text("N");
    command->add_flag("--json", typed->json,
                      "Shows how often it was raised, and how long that took, as one JSON object");
}

}  // namespace

void describe(CLI::App& app, Selection& selection) {
    selection.common.socket = kDefaultSocket;
    app.add_option("--socket", selection.common.socket,
                   fmt::format("The agent's socket; to be given with any command (default: {})", kDefaultSocket))
        ->option_text("PATH")
        ->check(CLI::Validator(socketPathProblem, ""));
    app.add_flag("--no-color", selection.common.noColor,
                 "No colours, as where the environment has NO_COLOR; to be given with any command");
    app.set_version_flag("--version", "kxctl " KX_VERSION, "Shows the version and ends");
    app.set_help_flag("-h,--help", "Shows this and ends");
    app.footer(kFooter);
    app.require_subcommand(1);
    addStatus(app, selection);
    addList(app, selection);
    addShow(app, selection);
    addEvents(app, selection);
    addCounters(app, selection);
    addTop(app, selection);
    addDoctor(app, selection);
    addAlert(app, selection);
}

}  // namespace kx::ctl
