#include "ctl/Program.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <string>

#include "ctl/AgentConnection.h"
#include "ctl/Console.h"
#include "ctl/Printable.h"
#include "ctl/Selection.h"
#include "ctl/commands/AlertCommand.h"
#include "ctl/commands/CountersCommand.h"
#include "ctl/commands/EventsCommand.h"

namespace kx::ctl {
namespace {

constexpr const char* kDescription = "Asks the host management agent, and shows what it tells.";

constexpr const char* kFooter =
    "\nExit status: 0 done; 1 the agent refused, or what was asked for is not there;\n"
    "2 wrong usage; 3 the agent cannot be reached.\n"
    "kxctl COMMAND --help tells more of a command.";

/// An option's check, in the form the command line's library has.
std::string socketPathProblem(const std::string& path) {
    if (path.empty() || path.size() > kMaxSocketPathBytes) {
        return fmt::format("the path of a socket has 1 to {} bytes, this one {}", kMaxSocketPathBytes, path.size());
    }
    return {};
}

void describe(CLI::App& app, Selection& selection) {
    selection.socket = kDefaultSocket;
    app.add_option("--socket", selection.socket,
                   fmt::format("The agent's socket; to be given with any command (default: {})", kDefaultSocket))
        ->option_text("PATH")
        ->check(CLI::Validator(socketPathProblem, ""));
    app.set_version_flag("--version", "kxctl " KX_VERSION, "Shows the version and ends");
    app.set_help_flag("-h,--help", "Shows this and ends");
    app.footer(kFooter);
    app.require_subcommand(1);
    addEventsCommand(app, selection);
    addAlertCommand(app, selection);
    addCountersCommand(app, selection);
}

ExitCode parseAndRun(CLI::App& app, int argc, const char* const* argv) {
    Selection selection;
    describe(app, selection);
    app.parse(argc, argv);
    return selection.run(selection.socket);
}

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
