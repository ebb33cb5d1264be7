// What goes into the alert engine and what comes out of it. Plain values, no thread of their own.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <string>

#include "agent/inventory/Eid.h"

namespace kx::agent {

/// Codes of alerts. A described host may use any other number; it is passed on unchanged.
enum AlertCode : std::int32_t { kAlertClear = 0, kAlertWarning = 1, kAlertCritical = 2 };

/// A source's word that something has run out, is about to, or has recovered.
struct AlertSignal {
    Eid about;           ///< the container, or the host itself
    std::string source;  ///< who says so: "memory.oom", "pids.limit"; stays inside the agent
    std::int32_t code = kAlertClear;
    std::string text;        ///< any bytes. Without varying numbers: the same alert has the same text
    std::int64_t value = 0;  ///< what the text is about: a count or an amount

    bool operator==(const AlertSignal&) const = default;
};

/// An alert as clients are told of it. It may stand for many signals.
struct Alert {
    AlertSignal signal;               ///< the latest of them; with " (and N more)" behind its text when there are more
    std::uint64_t more = 0;           ///< N: how many it stands for besides that one
    std::chrono::nanoseconds age{0};  ///< how long ago the latest came

    bool operator==(const Alert&) const = default;
};

}  // namespace kx::agent
