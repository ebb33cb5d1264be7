#include "ctl/Program.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/CommandLine.h"
#include "ctl/Console.h"
#include "ctl/Output.h"
#include "ctl/Printable.h"
#include "ctl/Selection.h"
#include "ctl/commands/Completion.h"

namespace kx::ctl {
namespace {

constexpr const char* kDescription = "Asks the host management agent, and shows what it tells.";

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
        return completedValue(command->get_name(), option->get_name(), socket);
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
