#include "ctl/events/Resubscription.h"

#include <algorithm>
#include <utility>

namespace kx::ctl {

bool Resubscription::failed(TimePoint now) {
    due_ = now + delay_;
    delay_ = std::min(2 * delay_, kLongestDelay);
    return std::exchange(isStanding_, false);
}

void Resubscription::linkBack(TimePoint now) {
    if (due_) {
        due_ = now;
    }
}

}  // namespace kx::ctl
