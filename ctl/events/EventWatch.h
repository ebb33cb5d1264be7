// Watching the agent's events until enough have come, or for ever. Main thread only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ctl/ExitCode.h"

namespace kx::ctl {

/// How events are watched.
struct EventWatchOptions {
    bool follow = false;                ///< subscribe again when the subscription is lost
    bool json = false;                  ///< lines for programs
    std::optional<std::int64_t> count;  ///< end after this many; nothing: never
};

/// @brief Writes events to standard output, and how the subscription stands to standard error. Ends when enough have
/// come, on SIGINT and SIGTERM, and when nobody reads the output any more.
/// @param socket the path of the agent's socket
/// @throws Failure when the agent cannot be reached, refuses, or is lost without `follow`
ExitCode watchEvents(const EventWatchOptions& options, const std::string& socket);

}  // namespace kx::ctl
