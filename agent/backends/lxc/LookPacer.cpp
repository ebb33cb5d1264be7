#include "agent/backends/lxc/LookPacer.h"

#include <algorithm>

namespace kx::agent::lxc {

Clock::time_point LookPacer::dueAfter(Clock::time_point change) const {
    const auto soon = change + kSoon;
    const auto allowed = paid_ - (kSoonLooks - 1) * Clock::duration(kPace);
    if (allowed <= soon) {
        return soon;
    }
    const auto past = allowed.time_since_epoch() % kGrid;
    return past == Clock::duration::zero() ? allowed : allowed + (kGrid - past);
}

void LookPacer::looked(Clock::time_point now) {
    paid_ = std::max(paid_, now) + kPace;
}

}  // namespace kx::agent::lxc
