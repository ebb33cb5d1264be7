#include "client/src/session/ReconnectBackoff.h"

#include <algorithm>

namespace kx::client {

ReconnectBackoff::ReconnectBackoff(std::chrono::milliseconds first, std::chrono::milliseconds longest, unsigned seed)
    : first_(first), longest_(longest), step_(first), random_(seed) {}

std::chrono::milliseconds ReconnectBackoff::next() {
    const std::chrono::milliseconds step = step_;
    step_ = std::min(step_ * 2, longest_);
    std::uniform_int_distribution<std::chrono::milliseconds::rep> jitter(0, step.count() * jitterPercent / 100);
    return step - std::chrono::milliseconds(jitter(random_));
}

}  // namespace kx::client
