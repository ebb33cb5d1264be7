// How long synchronous callers may still wait for the agent.
//
// Thread promise: any thread; the lock is held only to compute.
#pragma once

#include <chrono>
#include <mutex>

namespace kx::client {

/// @brief Keeps all waiting that one SNMP request leads to within its second, whatever the agent does.
///
/// A wait that times out makes the agent silent: nobody waits for it again until it has sent something, or the time
/// of silence has passed. Beside that, waits use up a budget of one full wait that comes back with time, so
/// that the waits for an agent that is merely slow each time cannot add up either.
class Patience {
public:
    using Clock = std::chrono::steady_clock;
    using Span = std::chrono::milliseconds;

    enum class Outcome { Answered, Failed, TimedOut };

    /// What is granted at least while the agent is not silent: agents that work answer within it.
    static constexpr Span least{10};
    /// Quicker answers and quicker failures cost nothing: a request can lead to some thirty of them.
    static constexpr Span freeAnswer{50};
    static constexpr Span freeFailure{5};
    /// What was used comes back at the speed of time divided by this.
    static constexpr int slowness = 4;

    /// @param full the longest wait
    /// @param silence how long a silent agent is not waited for
    Patience(Span full, Span silence) : full_(full), silence_(silence) {}

    /// @return what a caller may wait now, up to the full wait; 0: it fails at once
    Span left(Clock::time_point now) const;

    /// @brief A caller has waited.
    /// @param now when its wait ended
    void spend(Span waited, Outcome outcome, Clock::time_point now);

    /// @brief The agent has sent something, or has gone: it is not silent any more.
    void heard();

private:
    Span usedAt(Clock::time_point now) const;

    const Span full_;
    const Span silence_;

    mutable std::mutex mutex_;
    bool isSilent_ = false;
    Span used_{0};
    Clock::time_point last_;  ///< when `used_` was right, and the last wait ended
};

}  // namespace kx::client
