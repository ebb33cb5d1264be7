// kxctl top, running. Main thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "ctl/Selection.h"
#include "ctl/top/TopRows.h"

namespace kx::ctl {

/// How it runs.
struct TopOptions {
    TopOrder order = TopOrder::In;
    bool isReversed = false;
    std::chrono::milliseconds interval{2000};
    std::optional<std::int64_t> count;  ///< end after so many samples; nothing: never
    bool json = false;
};

/// @brief Shows samples: in place on a terminal, below each other elsewhere, for programs, or where their number is
/// given. Ends when enough were shown, on q, on SIGINT, SIGTERM, SIGHUP and SIGQUIT, and when nobody reads any more.
/// An agent that goes away is waited for.
/// @throws Failure when the agent cannot be reached at first
ExitCode watchTop(const TopOptions& options, const CommonOptions& common);

}  // namespace kx::ctl
