// Lets so many things through at once and so many a second. A plain value; the clock is the caller's.
//
// Kept as one moment, the one at which the bucket would be full again: whole nanoseconds, so nothing is lost to
// rounding however long it runs.
#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>

#include "agent/alerts/AlertLimits.h"

namespace kx::agent {

/// Full at first.
class TokenBucket {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    explicit TokenBucket(const AlertLimits& limits) { fit(limits); }

    /// @brief Changes rate and size. What was taken stays taken, but never more than an empty bucket.
    void setLimits(const AlertLimits& limits, TimePoint now) {
        fit(limits);
        fullAt_ = std::min(fullAt_, now + size_);
    }

    /// @brief Takes a token out.
    /// @return false when there is none
    bool take(TimePoint now) {
        if (now < nextAt()) {
            return false;
        }
        fullAt_ = std::max(fullAt_, now) + interval_;
        return true;
    }

    /// @return from when on there is a token
    TimePoint nextAt() const { return fullAt_ - (size_ - interval_); }

private:
    void fit(const AlertLimits& limits) {
        interval_ = std::chrono::nanoseconds(std::llround(1e9 / limits.perSecond));
        size_ = interval_ * static_cast<std::int64_t>(limits.burst);
    }

    std::chrono::nanoseconds interval_{};  ///< one token
    std::chrono::nanoseconds size_{};      ///< all tokens
    TimePoint fullAt_{};
};

}  // namespace kx::agent
