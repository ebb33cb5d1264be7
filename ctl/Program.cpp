#include "ctl/Program.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "ctl/AgentConnection.h"
#include "ctl/Console.h"
#include "ctl/Output.h"
#include "ctl/Printable.h"
#include "ctl/Selection.h"
#include "ctl/commands/AlertCommand.h"
#include "ctl/commands/Completion.h"
#include "ctl/commands/CountersCommand.h"
#include "ctl/commands/DoctorCommand.h"
#include "ctl/commands/EventsCommand.h"
#include "ctl/commands/ListCommand.h"
#include "ctl/commands/ShowCommand.h"
#include "ctl/commands/StatusCommand.h"
#include "ctl/commands/TopCommand.h"

// The whole command line is described here: the header of its library takes seconds to compile, so no other file
// includes it.
namespace kx::ctl {
namespace {

constexpr const char* kDescription = "Asks the host management agent, and shows what it tells.";

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
                   "\nBy number. Columns become narrower where the terminal is, an ellipsis standing for what is cut "
                   "off.",
                   runList);
    command->add_flag("-a,--all", typed->all,
                      "Shows environments of other types, and containers without a number, too");
    command
        ->add_option("-s,--state", typed->states,
                     "Shows only those in this state: unknown, stopped, running, frozen, or a number; may be repeated")
        ->option_text("STATE")
        ->type_size(1)
        ->allow_extra_args(false)
        ->delimiter(',');
    command->add_flag("--json", typed->json, "Shows them as one JSON document");
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
        "Waits for the first event, shows it and ends, unless --count or --follow says otherwise. With both it ends\n"
        "after so many events, and connects again until then. Events of before it is subscribed, and of while it is\n"
        "not connected, are not shown; how the subscription stands is told on standard error.",
        runEvents);
    command->add_flag("-f,--follow", typed->follow,
                      "Goes on until it is interrupted, and connects again when the agent was away");
    command->add_flag("--json", typed->json, "Shows each event as one JSON object a line");
    addOptional(*command, "-n,--count", typed->count, "N", "Ends after this many events");
}

void addCounters(CLI::App& app, Selection& selection) {
    const auto [command, typed] = addCommand(
        app, selection, "counters", "Shows what the containers' counters stand at",
        "\nA line for each container and instance: class, container (its number and name), instance, counters.\n"
        "Of a counter that only grows the total is shown, of a level what it is now. CLASS is the name of a counter\n"
        "class of the agent's vocabulary, e.g. counters_kx_net; without it both of the classes of containers are "
        "shown.",
        runCounters);
    command->add_option("class", typed->className, "The counter class to show")->option_text("CLASS");
    command->add_flag("--json", typed->json, "Shows all as one JSON document");
}

void addTop(CLI::App& app, Selection& selection) {
    const auto [command, typed] = addCommand(
        app, selection, "top", "Shows what the containers are doing, again and again",
        "\nTraffic a second, disk space and quota of each container, and the latest alerts. On a terminal in place; "
        "keys:\n"
        "q quits, left and right choose the column to sort by, r reverses, up, down and the page keys scroll.\n"
        "Elsewhere, and with --json, --once or --count, samples are written below each other.",
        runTop);
    command
        ->add_option("--sort", typed->sort,
                     "id, name, state, in, out, packets-in, packets-out, used or quota (default: in)")
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
                   "\nA line for each thing looked at: OK, WARN or FAIL, what it is, how it stands, and what to do. "
                   "Run as root it\n"
                   "sees everything. Exit status 1 when something does not work; warnings are none.",
                   runDoctor);
    SnmpPlaces& places = typed->places;
    const std::vector<std::tuple<const char*, std::string*, const char*, std::string>> options{
        {"--agentx", &places.agentxSocket, "PATH", "The master agent's socket"},
        {"--snmp-address", &places.address, "ADDRESS", "Where the SNMP agent is asked"},
        {"--community", &places.community, "NAME", "The community to ask as"},
        {"--user", &places.user, "NAME", "The user that kxsnmp runs as"},
        {"--lxc-path", &typed->lxcFolder, "PATH", "Where the containers are"},
    };
    for (const auto& [name, into, shown, help] : options) {
        command->add_option(name, *into, fmt::format("{} (default: {})", help, *into))->option_text(shown);
    }
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
    addOptional(*command, "--ve", typed->veid, "N", "The container it is about, by its number");
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

ExitCode parseAndRun(CLI::App& app, int argc, const char* const* argv) {
    Selection selection;
    describe(app, selection);
    app.parse(argc, argv);
    return selection.run(selection.common);
}

// ---- completion for shells ----------------------------------------------------------------------------------------

constexpr const char* kComplete = "__complete";

CLI::Option* optionNamed(CLI::App& command, const std::string& word) {
    CLI::Option* const found = command.get_option_no_throw(word);
    CLI::App* const above = command.get_parent();
    return found != nullptr || above == nullptr ? found : optionNamed(*above, word);
}

std::vector<CLI::App*> commandsOf(CLI::App& command) {
    return command.get_subcommands([](CLI::App*) { return true; });
}

/// @return null when there is none
CLI::App* commandNamed(CLI::App& in, const std::string& word) {
    for (CLI::App* const command : commandsOf(in)) {
        if (command->get_name() == word) {
            return command;
        }
    }
    return nullptr;
}

void addOptionNames(std::vector<std::string>& names, const CLI::App& command) {
    for (const CLI::Option* const option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            if (std::find(names.begin(), names.end(), "--" + name) == names.end()) {
                names.push_back("--" + name);
            }
        }
    }
    if (command.get_parent() != nullptr) {
        addOptionNames(names, *command.get_parent());
    }
}

/// What a command takes besides options: further commands, or the names of what it is about.
std::vector<std::string> namesIn(CLI::App& command, const std::string& socket) {
    std::vector<std::string> names = completedArgument(command.get_name(), socket);
    for (const CLI::App* const below : commandsOf(command)) {
        names.push_back(below->get_name());
    }
    return names;
}

/// @param words of the command line up to the one that is to be completed
std::vector<std::string> candidates(CLI::App& app, const std::vector<std::string>& words, std::string socket) {
    CLI::App* command = &app;
    CLI::Option* option = nullptr;  // whose value comes next
    for (std::size_t at = 0; at + 1 < words.size(); ++at) {
        if (option != nullptr) {
            socket = option->get_name() == "--socket" ? words[at] : socket;
            option = nullptr;
        } else if (words[at].rfind('-', 0) == 0) {
            CLI::Option* const named = optionNamed(*command, words[at]);
            option = named != nullptr && named->get_items_expected_max() > 0 ? named : nullptr;
        } else if (CLI::App* const below = commandNamed(*command, words[at])) {
            command = below;
        }
    }
    if (option != nullptr) {
        return completedValue(option->get_name(), socket);
    }
    std::vector<std::string> names;
    if (words.back().rfind('-', 0) == 0) {
        addOptionNames(names, *command);
        return names;
    }
    return namesIn(*command, socket);
}

/// Never says that something is wrong: there is only nothing to be proposed then.
void complete(CLI::App& app, std::vector<std::string> words) {
    if (words.empty()) {
        return;
    }
    Selection selection;
    describe(app, selection);
    Output output(STDOUT_FILENO, -1);
    for (const std::string& candidate : candidates(app, words, selection.common.socket)) {
        if (candidate.rfind(words.back(), 0) == 0 || candidate == kCompleteFiles) {
            output.writeLine(candidate);
        }
    }
}

// ---- errors -------------------------------------------------------------------------------------------------------

/// What is missing is told before what is too much; but a command that does not exist is why there is none.
std::string problemOf(const CLI::App& app, const CLI::ParseError& error) {
    const auto notUnderstood = app.remaining(true);
    const bool isMissing = dynamic_cast<const CLI::RequiredError*>(&error) != nullptr;
    return isMissing && !notUnderstood.empty() ? "there is no " + printableWord(notUnderstood.front()) + " here"
                                               : printable(error.what());
}

ExitCode wrongUsage(const std::string& words) {
    complain(words);
    note("kxctl --help tells how it is used");
    return ExitCode::WrongUsage;
}

}  // namespace

ExitCode runProgram(int argc, const char* const* argv) {
    CLI::App app(kDescription, "kxctl");
    try {
        if (argc > 1 && argv[1] == std::string_view(kComplete)) {
            complete(app, {argv + 2, argv + argc});
            return ExitCode::Done;
        }
        return parseAndRun(app, argc, argv);
    } catch (const CLI::Success& asked) {  // --help and --version
        app.exit(asked);
        return ExitCode::Done;
    } catch (const CLI::ParseError& error) {
        return wrongUsage(problemOf(app, error));
    } catch (const Failure& failure) {
        if (failure.code() == ExitCode::WrongUsage) {
            return wrongUsage(failure.what());
        }
        complain(failure.what());
        return failure.code();
    } catch (const std::exception& error) {
        complain(error.what());
        return ExitCode::Refused;
    }
}

}  // namespace kx::ctl
