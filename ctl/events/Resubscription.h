// When to subscribe again, and what of it is worth telling. The clock is the caller's; one thread.
#pragma once

#include <chrono>
#include <optional>

namespace kx::ctl {

/// @brief The state of a subscription that is to be kept up. After a failure it is due again after one second, then
/// after twice as long each time, at most after 30 seconds; and at once when the connection to the agent is back.
class Resubscription {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    static constexpr std::chrono::seconds kFirstDelay{1};
    static constexpr std::chrono::seconds kLongestDelay{30};

    /// @return when the next attempt is due; nothing while one is under way or stands
    const std::optional<TimePoint>& due() const { return due_; }

    /// @brief An attempt begins.
    void begin() { due_.reset(); }

    /// @brief The subscription stands.
    void succeeded() {
        delay_ = kFirstDelay;
        isStanding_ = true;
    }

    /// @brief The subscription, or an attempt at it, has failed.
    /// @return true when it stood until now
    bool failed(TimePoint now);

    /// @brief The connection to the agent is back. Changes nothing while an attempt is under way.
    void linkBack(TimePoint now);

private:
    std::optional<TimePoint> due_;
    std::chrono::seconds delay_ = kFirstDelay;  ///< before the next attempt
    bool isStanding_ = false;
};

}  // namespace kx::ctl
