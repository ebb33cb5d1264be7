// Watching the agent's events until enough have come, or for ever. Main thread only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ctl/ExitCode.h"
#include "ctl/events/EventFilter.h"

namespace kx::ctl {

/// How events are watched.
struct EventWatchOptions {
    bool json = false;                  ///< lines for programs
    std::optional<std::int64_t> count;  ///< end after this many; nothing: never
    std::uint64_t sinceMs = 0;          ///< of events that have happened before: from then on; 0: none
    EventFilter filter;                 ///< others are neither shown nor counted
};

/// @brief Writes events to standard output, and how the subscription stands to standard error. Ends when enough have
/// come, on SIGINT and SIGTERM, and when nobody reads the output any more.
/// @param socket the path of the agent's socket
/// An agent that goes away is waited for.
/// @throws Failure when the agent cannot be reached at first, or refuses
ExitCode watchEvents(const EventWatchOptions& options, const std::string& socket);

}  // namespace kx::ctl
