// Waiting for a condition instead of for a time. Any thread.
#pragma once

#include <chrono>
#include <thread>

namespace kx::test {

/// How long anything in a test may take before it counts as not happening.
inline constexpr std::chrono::seconds kPatience{20};

/// @brief Waits until `condition` holds.
/// @return whether it did within the deadline
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds deadline = kPatience) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace kx::test
