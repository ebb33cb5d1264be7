// What goes into the alert engine and what comes out of it. Plain values, any thread.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <string>
#include <utility>

#include "agent/inventory/Eid.h"

namespace kx::agent {

/// Codes of alerts. A simulated host may use any other number; it is passed on unchanged.
enum AlertCode : std::int32_t { kAlertClear = 0, kAlertWarning = 1, kAlertCritical = 2 };

/// Wall-clock time of an event.
using WallTime = std::chrono::system_clock::time_point;

/// Source of alerts that a client had raised.
inline constexpr const char* kRaisedSource = "raised";

/// One source of one environment: what it reports last replaces what it reported before.
struct AlertKey {
    Eid about;           ///< the container, or the host itself
    std::string source;  ///< "memory.oom", "pids.limit"; stays inside the agent

    auto operator<=>(const AlertKey&) const = default;  // NOLINT(modernize-use-nullptr): code the compiler makes
};

/// A source's report that something has run out, is about to, or has recovered.
struct AlertSignal {
    Eid about;           ///< see AlertKey
    std::string source;  ///< see AlertKey
    std::int32_t code = kAlertClear;
    std::string text;        ///< any bytes. Without varying numbers: the same alert has the same text
    std::int64_t value = 0;  ///< what the text is about: a count or an amount
    /// The state that a source found at its first check, and no change: it counts only where it differs from what was
    /// known before, see AlarmBook.
    bool initial = false;

    AlertKey key() const { return {about, source}; }
    bool operator==(const AlertSignal&) const = default;
};

/// An alert that is due. It may stand for many signals.
struct Alert {
    AlertSignal signal;               ///< the latest of them
    std::uint64_t more = 0;           ///< how many it stands for besides that one
    std::chrono::nanoseconds age{0};  ///< how long ago the latest came

    bool operator==(const Alert&) const = default;
};

/// The same with the time at which the latest signal came: what is kept for clients.
struct DatedAlert {
    AlertSignal signal;
    std::uint64_t more = 0;
    WallTime happened;

    /// @brief Takes the place of an earlier alert of the same source, and stands for that one too.
    void standAlsoFor(const DatedAlert& earlier) { more += 1 + earlier.more; }
    bool operator==(const DatedAlert&) const = default;
};

/// @return the text as clients get it: with " (and N more)" behind it where the alert stands for more than one signal
template <typename AnyAlert>
std::string textOf(const AnyAlert& alert) {
    return alert.more == 0 ? alert.signal.text : alert.signal.text + " (and " + std::to_string(alert.more) + " more)";
}

}  // namespace kx::agent
