#include "ctl/commands/AlertCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>

#include "ctl/AgentConnection.h"
#include "ctl/Console.h"
#include "ctl/Json.h"
#include "ctl/Numbers.h"
#include "ctl/Output.h"
#include "ctl/Printable.h"
#include "ctl/commands/AlertText.h"
#include "ctl/view/Environment.h"

namespace kx::ctl {
namespace {

/// What is to be raised.
struct Raise {
    KXLResourceAlertData alert;
    std::optional<std::int32_t> veid;
    std::optional<std::string> name;  ///< of a container that was not given by its number
    bool isAboutHost = false;
    std::int64_t times = 1;
};

template <typename Number>
Number readIn(const char* option, const std::string& text) {
    using Limits = std::numeric_limits<Number>;
    return static_cast<Number>(readNumber(option, text, Limits::min(), Limits::max()));
}

void setTarget(Raise& raise, const AlertArguments& typed) {
    if ((typed.container ? 1 : 0) + (typed.eid ? 1 : 0) + (typed.host ? 1 : 0) != 1) {
        throw Failure(ExitCode::WrongUsage, "exactly one of --ve, --eid and --host says what the alert is about");
    }
    raise.isAboutHost = typed.host;
    if (typed.container) {
        if (typed.container->find_first_not_of("-0123456789") == std::string::npos) {
            raise.veid = readIn<std::int32_t>("--ve", *typed.container);
        } else {
            raise.name = typed.container;
        }
    }
    if (typed.eid && raise.alert.eid.fromString(*typed.eid) != 0) {
        throw Failure(ExitCode::WrongUsage,
                      fmt::format("--eid: {} is no identifier; one looks like 0f8e5c1a-7a44-4c3b-9d1e-000000000101",
                                  printableWord(*typed.eid)));
    }
}

Raise readTyped(const AlertArguments& typed) {
    Raise raise;
    setTarget(raise, typed);
    raise.alert.alertCode = readIn<std::int32_t>("--code", typed.code);
    raise.alert.alertValue = readIn<std::int64_t>("--value", typed.value);
    raise.times = readNumber("--repeat", typed.repeat, 1, std::numeric_limits<std::int64_t>::max());
    raise.alert.alertText = typed.textFile ? readAlertText(*typed.textFile) : typed.text;
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

void show(std::int64_t raised, std::chrono::duration<double> took, bool asJson) {
    if (asJson) {
        Json object;
        object.put("raised", raised);
        object.put("seconds", took.count());
        Output(STDOUT_FILENO, -1).writeLine(object.line());
    } else if (raised > 1) {
        note(fmt::format("raised {} times in {:.3f} s", raised, took.count()));
    }
}

ExitCode raiseAll(Raise raise, const std::string& socket, bool asJson) {
    const AgentConnection agent(socket);
    if (raise.isAboutHost) {
        raise.alert.eid = agent.accessPoint().getEID();
    }
    if (raise.name) {
        raise.alert.eid = chooseEnvironment(readEnvironments(*agent.accessPoint().getEnvCache()), *raise.name).eid;
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
    show(raised, std::chrono::steady_clock::now() - start, asJson);
    return ExitCode::Done;
}

}  // namespace

ExitCode runAlertRaise(const AlertArguments& typed, const CommonOptions& common) {
    return raiseAll(readTyped(typed), common.socket, typed.json);
}

}  // namespace kx::ctl
