// How long to wait before the next attempt to reconnect. No thread of its own, no clock: it only counts.
#pragma once

#include <chrono>
#include <random>

namespace kx::client {

/// @brief Pauses that double from a first to a longest, each shortened by a random part: after a restart of the
/// agent its clients do not come back all in the same moment.
class ReconnectBackoff {
public:
    /// Of a pause at most this part, in percent, is taken off at random.
    static constexpr int jitterPercent = 25;

    /// @param first pause after a reset, above 0
    /// @param longest at least first
    /// @param seed of the jitter; the same seed gives the same pauses
    ReconnectBackoff(std::chrono::milliseconds first, std::chrono::milliseconds longest, unsigned seed);

    /// @return the next pause, between 75 and 100 % of its step
    std::chrono::milliseconds next();

    /// @brief A handshake was completed: the next pause is the first again.
    void reset() { step_ = first_; }

private:
    std::chrono::milliseconds first_;
    std::chrono::milliseconds longest_;
    std::chrono::milliseconds step_;
    std::minstd_rand random_;
};

}  // namespace kx::client
