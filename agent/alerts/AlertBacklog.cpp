#include "agent/alerts/AlertBacklog.h"

#include <algorithm>
#include <utility>

namespace kx::agent {

void AlertBacklog::add(DatedAlert alert) {
    auto known = places_.find(alert.signal.key());
    const bool isLonger = known == places_.end() || bytesOf(alert) > bytesOf(*known->second);
    if (isLonger && !fits(alert)) {
        overflown_ += 1 + alert.more;
        alert.signal = {host_, kOverflowSource, kAlertWarning, kOverflowText, static_cast<std::int64_t>(overflown_)};
        known = places_.find(alert.signal.key());
    }
    if (known != places_.end()) {
        replace(known->second, std::move(alert));
        return;
    }
    textBytes_ += bytesOf(alert);
    AlertKey key = alert.signal.key();
    places_.emplace(std::move(key), queue_.insert(queue_.end(), std::move(alert)));
}

/// What clears something is let in beyond the bounds: there is at most one for each source that something was kept of.
bool AlertBacklog::fits(const DatedAlert& alert) const {
    return alert.signal.code == kAlertClear ||
           (queue_.size() < bounds_.entries && textBytes_ + bytesOf(alert) <= bounds_.textBytes);
}

void AlertBacklog::replace(std::list<DatedAlert>::iterator place, DatedAlert alert) {
    textBytes_ += bytesOf(alert);
    textBytes_ -= bytesOf(*place);
    alert.standAlsoFor(*place);
    *place = std::move(alert);
}

std::vector<DatedAlert> AlertBacklog::take(std::size_t most, std::size_t textBytes) {
    std::vector<DatedAlert> taken;
    while (!queue_.empty() && taken.size() < most) {
        const std::size_t bytes = bytesOf(queue_.front());
        if (!taken.empty() && bytes > textBytes) {
            break;
        }
        textBytes -= std::min(textBytes, bytes);
        textBytes_ -= bytes;
        places_.erase(queue_.front().signal.key());
        taken.push_back(std::move(queue_.front()));
        queue_.pop_front();
    }
    return taken;
}

bool AlertBacklog::holds(const Eid& about) const {
    const auto place = places_.lower_bound({about, ""});
    return place != places_.end() && place->first.about == about;
}

}  // namespace kx::agent
