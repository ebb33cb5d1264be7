// What a shell proposes where a word of the command line is not an option or a command. Main thread only.
#pragma once

#include <string>
#include <vector>

namespace kx::ctl {

/// Instead of words: names of files.
inline constexpr const char* kCompleteFiles = "//files";

/// @param command its name: "list"
/// @param option its name: "--sort"
/// @param socket the path of the agent's socket, which is asked where it knows
/// @return words it may have as its value; none where there is nothing to choose from, or the agent does not answer
std::vector<std::string> completedValue(const std::string& command, const std::string& option,
                                        const std::string& socket);

/// @param command its name: "show"
/// @return words that may follow it, likewise
std::vector<std::string> completedArgument(const std::string& command, const std::string& socket);

}  // namespace kx::ctl
