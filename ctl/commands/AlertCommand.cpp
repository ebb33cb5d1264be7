#include "ctl/commands/AlertCommand.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>

#include "ctl/AgentConnection.h"
#include "ctl/Console.h"
#include "ctl/Numbers.h"
#include "ctl/Printable.h"
#include "ctl/commands/AlertText.h"

namespace kx::ctl {
namespace {

constexpr const char* kHelp = "Has the agent report an alert, as if it had happened";

constexpr const char* kDetails =
    "\nOnly an agent that shows a described host does so. Exactly one of --ve, --eid and --host is needed.\n"
    "\n"
    "The agent treats it like every alert: one that is equal to an earlier one (same target, code and text) is not\n"
    "told again for a while, but counted.";

/// The options as they were typed.
struct Typed {
    std::string veid;
    std::string eid;
    bool host = false;
    std::string code;
    std::string value = "0";
    std::string text;
    std::string textFile;
    std::string repeat = "1";
};

/// What is to be raised.
struct Raise {
    KXLResourceAlertData alert;
    std::optional<std::int32_t> veid;
    bool isAboutHost = false;
    std::int64_t times = 1;
};

template <typename Number>
Number readIn(const char* option, const std::string& text) {
    using Limits = std::numeric_limits<Number>;
    return static_cast<Number>(readNumber(option, text, Limits::min(), Limits::max()));
}

void setTarget(Raise& raise, const Typed& typed, const CLI::App& command) {
    const auto given = command.count("--ve") + command.count("--eid") + command.count("--host");
    if (given != 1) {
        throw Failure(ExitCode::WrongUsage, "exactly one of --ve, --eid and --host says what the alert is about");
    }
    raise.isAboutHost = typed.host;
    if (command.count("--ve") != 0) {
        raise.veid = readIn<std::int32_t>("--ve", typed.veid);
    }
    if (command.count("--eid") != 0 && raise.alert.eid.fromString(typed.eid) != 0) {
        throw Failure(ExitCode::WrongUsage,
                      fmt::format("--eid: {} is no identifier; one looks like 0f8e5c1a-7a44-4c3b-9d1e-000000000101",
                                  printableWord(typed.eid)));
    }
}

Raise readTyped(const Typed& typed, const CLI::App& command) {
    Raise raise;
    setTarget(raise, typed, command);
    raise.alert.alertCode = readIn<std::int32_t>("--code", typed.code);
    raise.alert.alertValue = readIn<std::int64_t>("--value", typed.value);
    raise.times = readNumber("--repeat", typed.repeat, 1, std::numeric_limits<std::int64_t>::max());
    raise.alert.alertText = command.count("--text-file") == 0 ? typed.text : readAlertText(typed.textFile);
    return raise;
}

/// @throws Failure when it was not raised
void raiseOnce(const AgentConnection& agent, const Raise& raise, const std::string& socket) {
    std::string refusal;
    const int code = agent.accessPoint().raiseAlertSync(raise.alert, raise.veid ? &*raise.veid : nullptr, refusal);
    if (code == KXL_ERROR_REFUSED) {
        throw Failure(ExitCode::Refused, "the agent refuses: " + printable(refusal));
    }
    if (code != 0) {
        const std::string what = code == KXL_ERROR_TIMEOUT ? whyUnreachable(code, socket)
                                                           : std::string("the connection to the agent was lost");
        throw Failure(ExitCode::Unreachable, what + "; whether it has raised the alert is not known");
    }
}

ExitCode raiseAll(Raise raise, const std::string& socket) {
    const AgentConnection agent(socket);
    if (raise.isAboutHost) {
        raise.alert.eid = agent.accessPoint().getEID();
    }
    const auto start = std::chrono::steady_clock::now();
    std::int64_t raised = 0;
    try {
        for (; raised < raise.times; ++raised) {
            raiseOnce(agent, raise, socket);
        }
    } catch (const Failure& failure) {
        throw raised == 0 ? failure : Failure(failure.code(), fmt::format("after {}: {}", raised, failure.what()));
    }
    if (raised > 1) {
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        note(fmt::format("raised {} times in {:.3f} s", raised, took.count()));
    }
    return ExitCode::Done;
}

void addOptions(CLI::App& command, Typed& typed) {
    command.add_option("--ve", typed.veid, "The container it is about, by its number")->option_text("N");
    command.add_option("--eid", typed.eid, "The environment it is about, by its identifier; any will do")
        ->option_text("UUID");
    command.add_flag("--host", typed.host, "It is about the host itself");
    command.add_option("--code", typed.code, "0 clear, 1 warning, 2 critical; any 32-bit number is passed on")
        ->option_text("N")
        ->required();
    command.add_option("--value", typed.value, "What the text is about: a count or an amount, 64 bits (default: 0)")
        ->option_text("N");
    auto* text =
        command.add_option("--text", typed.text, "What the alert says (default: nothing)")->option_text("TEXT");
    command.add_option("--text-file", typed.textFile, "Takes the text from a file, byte for byte; -: standard input")
        ->option_text("FILE")
        ->excludes(text);
    command
        .add_option("--repeat", typed.repeat, "Raises it this many times, as fast as the agent answers (default: 1)")
        ->option_text("N");
}

}  // namespace

void addAlertCommand(CLI::App& app, Selection& selection) {
    CLI::App* const alert = app.add_subcommand("alert", "Raises alerts, for trying out what becomes of them");
    alert->require_subcommand(1)->fallthrough();
    CLI::App* const raise = alert->add_subcommand("raise", kHelp);
    raise->fallthrough()->footer(kDetails);
    const auto typed = std::make_shared<Typed>();
    addOptions(*raise, *typed);
    raise->callback([typed, raise, &selection] {
        selection.run = [what = readTyped(*typed, *raise)](const std::string& socket) {
            return raiseAll(what, socket);
        };
    });
}

}  // namespace kx::ctl
