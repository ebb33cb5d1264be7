// How kxctl ends: its exit statuses, and the exception by which a command ends with one of them. Plain values.
#pragma once

#include <stdexcept>
#include <string>

namespace kx::ctl {

/// The exit statuses. Scripts rely on them.
enum class ExitCode : int {
    Done = 0,
    Refused = 1,      ///< the agent refused, or what was asked for is not there
    WrongUsage = 2,   ///< the command line is wrong; nothing was asked of the agent
    Unreachable = 3,  ///< the agent cannot be reached, or was lost
};

/// @brief Ends a command. Thrown anywhere, caught in one place, which says the words and exits with the code.
class Failure : public std::runtime_error {
public:
    /// @param words one line fit for a terminal, without a line end
    Failure(ExitCode code, const std::string& words) : std::runtime_error(words), code_(code) {}

    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

}  // namespace kx::ctl
