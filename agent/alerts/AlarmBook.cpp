#include "agent/alerts/AlarmBook.h"

#include <algorithm>
#include <utility>

namespace kx::agent {

bool AlarmBook::take(const AlertSignal& signal, bool canBeCleared) {
    const auto known = alarms_.find(signal.key());
    const bool wasRaised = known != alarms_.end();
    const std::int32_t before = wasRaised ? known->second.signal.code : std::int32_t{kAlertClear};
    if (signal.code <= kAlertClear && wasRaised) {
        alarms_.erase(known);
    } else if (signal.code > kAlertClear && canBeCleared && (wasRaised || alarms_.size() < kMost)) {
        alarms_[signal.key()] = {signal, false};
    }
    return !signal.initial || signal.code != before;
}

std::vector<AlertSignal> AlarmBook::clearsFor(const std::function<bool(const Eid&)>& isOver, const char* text) const {
    std::vector<AlertSignal> clears;
    for (const auto& [key, alarm] : alarms_) {
        if (isOver(key.about)) {
            clears.push_back({key.about, key.source, kAlertClear, text, alarm.signal.value});
        }
    }
    return clears;
}

std::vector<AlertSignal> AlarmBook::clearsForRestored(const std::function<bool(const Eid&)>& isOver,
                                                      const char* text) const {
    auto clears = clearsFor(isOver, text);
    std::erase_if(clears, [&](const AlertSignal& clear) { return !alarms_.at(clear.key()).restored; });
    return clears;
}

bool AlarmBook::holds(const Eid& about) const {
    const auto alarm = alarms_.lower_bound({about, ""});
    return alarm != alarms_.end() && alarm->first.about == about;
}

std::vector<AlertSignal> AlarmBook::raised() const {
    std::vector<AlertSignal> all;
    all.reserve(alarms_.size());
    std::transform(alarms_.begin(), alarms_.end(), std::back_inserter(all),
                   [](const auto& entry) { return entry.second.signal; });
    return all;
}

void AlarmBook::restore(std::vector<AlertSignal> raised) {
    for (AlertSignal& signal : raised) {
        AlertKey key = signal.key();
        alarms_.emplace(std::move(key), Alarm{std::move(signal), true});
    }
}

}  // namespace kx::agent
