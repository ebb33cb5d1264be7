// How often alerts are told. Plain values, no thread of their own.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kx::agent {

/// The limits that a configuration sets. The defaults keep a storm on the whole host from drowning those who pass
/// alerts on: a few hundred notifications sent back to back are known to hang a master agent and its sub-agent.
struct AlertLimits {
    std::chrono::milliseconds repeat{60'000};  ///< the same alert is told at most once in this time; 0: no limit
    double perSecond = 50.0;                   ///< deliveries a second in the long run, kMinPerSecond..kMaxPerSecond
    std::uint32_t burst = 100;                 ///< deliveries at once after a quiet time, 1..kMaxBurst

    static constexpr std::chrono::milliseconds kMaxRepeat{86'400'000};
    static constexpr double kMinPerSecond = 0.01;
    static constexpr double kMaxPerSecond = 100'000.0;
    static constexpr std::uint32_t kMaxBurst = 100'000;

    bool operator==(const AlertLimits&) const = default;
};

/// What the engine may remember. Beyond it signals are only counted, in one alert about the host.
struct AlertBounds {
    std::size_t entries = 100'000;                          ///< alerts told lately, and alerts that wait
    std::size_t textBytes = std::size_t{32} * 1024 * 1024;  ///< of their texts and sources
};

}  // namespace kx::agent
