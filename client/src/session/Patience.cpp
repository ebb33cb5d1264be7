#include "client/src/session/Patience.h"

#include <algorithm>

namespace kx::client {

Patience::Span Patience::usedAt(Clock::time_point now) const {
    const auto restored = std::chrono::duration_cast<Span>(now - last_) / slowness;
    return std::max(used_ - restored, Span(0));
}

Patience::Span Patience::left(Clock::time_point now) const {
    const std::lock_guard guard(mutex_);
    if (isSilent_ && now - last_ < silence_) {
        return Span(0);
    }
    return std::max(full_ - usedAt(now), std::min(least, full_));
}

void Patience::spend(Span waited, Outcome outcome, Clock::time_point now) {
    const std::lock_guard guard(mutex_);
    isSilent_ = outcome == Outcome::TimedOut;
    const Span free = outcome == Outcome::Answered ? freeAnswer : freeFailure;
    used_ = usedAt(now) + (waited > free ? waited : Span(0));
    last_ = now;
}

void Patience::heard() {
    const std::lock_guard guard(mutex_);
    isSilent_ = false;
}

}  // namespace kx::client
