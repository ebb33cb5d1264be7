#include "ctl/commands/Completion.h"

#include "ctl/AgentConnection.h"
#include "ctl/ExitCode.h"
#include "ctl/top/TopRows.h"
#include "ctl/view/Environment.h"
#include "ctl/view/Words.h"

namespace kx::ctl {
namespace {

/// Numbers only: names are whatever their owners typed, and a shell would act on it.
std::vector<std::string> numbersOfContainers(const std::string& socket) {
    std::vector<std::string> numbers;
    try {
        const AgentConnection connection(socket);
        for (const Environment& one : readEnvironments(*connection.accessPoint().getEnvCache())) {
            if (one.veid && one.isContainer()) {
                numbers.push_back(std::to_string(*one.veid));
            }
        }
    } catch (const Failure&) {
        return {};
    }
    return numbers;
}

std::vector<std::string> orderWords() {
    std::vector<std::string> words;
    words.reserve(kTopOrders);
    for (int order = 0; order < kTopOrders; ++order) {
        words.emplace_back(topOrderWord(static_cast<TopOrder>(order)));
    }
    return words;
}

std::vector<std::string> stateWords() {
    std::vector<std::string> words;
    for (std::int32_t state = 0; const char* const word = stateWord(state); ++state) {
        words.emplace_back(word);
    }
    return words;
}

}  // namespace

std::vector<std::string> completedValue(const std::string& option, const std::string& socket) {
    if (option == "--ve") {
        return numbersOfContainers(socket);
    }
    if (option == "--sort") {
        return orderWords();
    }
    if (option == "--state") {
        return stateWords();
    }
    if (option == "--socket" || option == "--text-file" || option == "--agentx" || option == "--lxc-path") {
        return {kCompleteFiles};
    }
    return {};
}

std::vector<std::string> completedArgument(const std::string& command, const std::string& socket) {
    if (command == "show") {
        return numbersOfContainers(socket);
    }
    return command == "counters" ? std::vector<std::string>{kQuotaClass, kNetworkClass} : std::vector<std::string>{};
}

}  // namespace kx::ctl
