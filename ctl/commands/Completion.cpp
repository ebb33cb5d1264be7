#include "ctl/commands/Completion.h"

#include <algorithm>
#include <cctype>
#include <iterator>

#include "ctl/AgentConnection.h"
#include "ctl/ExitCode.h"
#include "ctl/commands/ListCommand.h"
#include "ctl/top/TopRows.h"
#include "ctl/view/Counters.h"
#include "ctl/view/Environment.h"
#include "ctl/view/Words.h"

namespace kx::ctl {
namespace {

/// Names are whatever their owners typed: one that a shell would have to quote, or take for an option, is left out.
bool isPlain(const std::string& name) {
    const auto isPlainByte = [](unsigned char byte) {
        return byte < 0x80 && (std::isalnum(byte) != 0 || byte == '.' || byte == '_' || byte == '-');
    };
    return !name.empty() && name.front() != '-' && std::all_of(name.begin(), name.end(), isPlainByte);
}

/// Numbers, and the names behind them.
std::vector<std::string> wordsForContainers(const std::string& socket) {
    std::vector<std::string> numbers, names;
    try {
        const AgentConnection connection(socket);
        for (const Environment& one : readEnvironments(*connection.accessPoint().getEnvCache())) {
            if (one.veid && one.isContainer()) {
                numbers.push_back(std::to_string(*one.veid));
                names.push_back(one.name);
            }
        }
    } catch (const Failure&) {
        return {};
    }
    std::copy_if(names.begin(), names.end(), std::back_inserter(numbers), isPlain);
    return numbers;
}

std::vector<std::string> stateWords() {
    std::vector<std::string> words;
    for (std::int32_t state = 0; const char* const word = stateWord(state); ++state) {
        words.emplace_back(word);
    }
    return words;
}

}  // namespace

std::vector<std::string> completedValue(const std::string& command, const std::string& option,
                                        const std::string& socket) {
    if (option == "--ve") {
        return wordsForContainers(socket);
    }
    if (option == "--sort" || option == "--columns") {
        return command == "list" ? listColumnWords() : topOrderWords();
    }
    if (option == "--state") {
        return stateWords();
    }
    if (option == "--class") {
        return {kQuotaClass, kNetworkClass};
    }
    if (option == "--socket" || option == "--text-file" || option == "--agentx" || option == "--lxc-path") {
        return {kCompleteFiles};
    }
    return {};
}

std::vector<std::string> completedArgument(const std::string& command, const std::string& socket) {
    const bool takesContainers = command == "show" || command == "list" || command == "counters";
    return takesContainers ? wordsForContainers(socket) : std::vector<std::string>();
}

}  // namespace kx::ctl
