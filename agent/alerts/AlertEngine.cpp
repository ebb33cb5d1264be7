#include "agent/alerts/AlertEngine.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

namespace kx::agent {

AlertEngine::AlertEngine(const Eid& host, const AlertLimits& limits, const AlertBounds& bounds)
    : host_(host), limits_(limits), bounds_(bounds), bucket_(limits) {}

std::vector<Alert> AlertEngine::take(AlertSignal signal, TimePoint now) {
    settle(now);
    ++status_.signals;
    receive(std::move(signal), now);
    pump(now);
    return std::exchange(out_, {});
}

std::vector<Alert> AlertEngine::advance(TimePoint now) {
    settle(now);
    return std::exchange(out_, {});
}

std::vector<Alert> AlertEngine::setLimits(const AlertLimits& limits, TimePoint now) {
    limits_ = limits;
    bucket_.setLimits(limits, now);
    return advance(now);
}

std::optional<AlertEngine::TimePoint> AlertEngine::nextDeadline() const {
    std::optional<TimePoint> deadline;
    if (!inOrderTold_.empty()) {
        deadline = inOrderTold_.front()->second.toldAt + limits_.repeat;
    }
    if (!queue_.empty()) {
        deadline = deadline ? std::min(*deadline, bucket_.nextAt()) : bucket_.nextAt();
    }
    return deadline;
}

/// What was counted of a revoked alert is reported with the one that has revoked it.
Alert AlertEngine::countedAlert(Recent::const_iterator told, TimePoint now) const {
    const std::uint64_t more = told->second.counted - 1;
    const auto successor = successorOf(told);
    const auto& [identity, latest] = successor ? **successor : *told;
    return {{identity.source.about, identity.source.source, identity.code, identity.text, latest.value},
            more,
            now - latest.happened};
}

std::vector<Alert> AlertEngine::outstanding(TimePoint now) const {
    std::map<Source, Alert> alerts;
    const auto add = [&](Alert alert) {
        const auto [known, isNew] = alerts.try_emplace(alert.signal.key(), alert);
        if (!isNew) {
            Alert& held = known->second;
            const std::uint64_t more = held.more + alert.more + 1;
            if (alert.age <= held.age) {
                held = std::move(alert);
            }
            held.more = more;
        }
    };
    for (auto told = recent_.begin(); told != recent_.end(); ++told) {
        if (told->second.counted > 0) {
            add(countedAlert(told, now));
        }
    }
    for (const Waiting& waiting : queue_) {
        add({waiting.signal, waiting.more, now - waiting.happened});
    }
    std::vector<Alert> list;
    list.reserve(alerts.size());
    std::transform(alerts.begin(), alerts.end(), std::back_inserter(list), [](auto& entry) { return entry.second; });
    return list;
}

std::vector<Alert> AlertEngine::restore(const std::vector<Alert>& alerts, TimePoint now) {
    for (const Alert& alert : alerts) {
        status_.signals += 1 + alert.more;
        tellAgain(alert.signal, now - alert.age, 1 + alert.more);
    }
    return advance(now);
}

bool AlertEngine::isOutstanding(const Eid& about) const {
    const auto waits = [&](const auto& state) { return state.second.waiting.has_value(); };
    const auto isCounted = [&](const auto& told) { return told.second.counted > 0; };
    const auto state = states_.lower_bound({about, ""});
    const auto stateEnd = std::find_if(state, states_.end(), [&](const auto& it) { return it.first.about != about; });
    const auto told = recent_.lower_bound({{about, ""}, std::numeric_limits<std::int32_t>::min(), ""});
    const auto toldEnd =
        std::find_if(told, recent_.end(), [&](const auto& it) { return it.first.source.about != about; });
    return std::any_of(state, stateEnd, waits) || std::any_of(told, toldEnd, isCounted);
}

void AlertEngine::receive(AlertSignal signal, TimePoint now) {
    const auto state = states_.find(sourceOf(signal));
    if (state != states_.end() && state->second.waiting) {
        replaceWaiting(**state->second.waiting, std::move(signal), now);
        return;
    }
    if (const auto told = recent_.find(identityOf(signal)); told != recent_.end()) {
        count(told, 1, signal.value, now);
    } else if (fits(1, bytesOf(signal)) || isOverflow(signal)) {
        enqueue({std::move(signal), now, 0});
    } else {
        overflow(now);
    }
}

void AlertEngine::replaceWaiting(Waiting& waiting, AlertSignal signal, TimePoint now) {
    const std::size_t before = bytesOf(waiting.signal);
    const std::size_t after = bytesOf(signal);
    if (after > before && !fits(0, after - before) && !isOverflow(signal)) {
        overflow(now);
        return;
    }
    textBytes_ += after;
    textBytes_ -= before;
    waiting.signal = std::move(signal);
    waiting.happened = now;
    ++waiting.more;
    ++status_.waitingSignals;
}

bool AlertEngine::fits(std::size_t entries, std::size_t textBytes) const {
    return this->entries() + entries <= bounds_.entries && textBytes_ + textBytes <= bounds_.textBytes;
}

/// The engine's own alert is let in beyond the bounds: there is never more of it than its two states.
bool AlertEngine::isOverflow(const AlertSignal& signal) const {
    return signal.source == kOverflowSource && signal.about == host_ &&
           (signal.text == kOverflowText || signal.text == kOverflowEndText);
}

/// Takes the engine's own signal in the place of one that there is no room for.
void AlertEngine::overflow(TimePoint now) {
    receive({host_, kOverflowSource, kAlertWarning, kOverflowText, ++overflown_}, now);
}

void AlertEngine::count(Recent::iterator told, std::uint64_t signals, std::int64_t value, TimePoint happened) {
    told->second.counted += signals;
    told->second.value = value;
    told->second.happened = happened;
    states_.find(told->first.source)->second.latest = told;
    status_.counted += signals;
}

void AlertEngine::enqueue(Waiting waiting) {
    ++status_.waiting;
    status_.waitingSignals += 1 + waiting.more;
    textBytes_ += bytesOf(waiting.signal);
    State& state = states_[sourceOf(waiting.signal)];
    state.waiting = queue_.insert(queue_.end(), std::move(waiting));
}

/// Takes the first one out of the queue; its state may then be idle, which is the caller's affair.
void AlertEngine::dequeue() {
    const Waiting& first = queue_.front();
    --status_.waiting;
    status_.waitingSignals -= 1 + first.more;
    textBytes_ -= bytesOf(first.signal);
    states_.find(sourceOf(first.signal))->second.waiting.reset();
    queue_.pop_front();
}

void AlertEngine::settle(TimePoint now) {
    pump(now);
    while (!inOrderTold_.empty() && inOrderTold_.front()->second.toldAt + limits_.repeat <= now) {
        expireFirst(now);
        pump(now);
    }
}

void AlertEngine::expireFirst(TimePoint now) {
    const Recent::iterator told = inOrderTold_.front();
    inOrderTold_.pop_front();
    const auto& [identity, what] = *told;
    const AlertSignal signal{identity.source.about, identity.source.source, identity.code, identity.text, what.value};
    const std::uint64_t counted = what.counted;
    const TimePoint happened = what.happened;
    const auto successor = successorOf(told);
    status_.counted -= counted;
    forget(told);
    if (counted > 0 && successor) {
        count(*successor, counted, (*successor)->second.value, (*successor)->second.happened);
    } else if (counted > 0) {
        tellAgain(signal, happened, counted);
    } else if (isOverflow(signal) && signal.code != kAlertClear) {
        ++status_.ownSignals;
        receive({host_, kOverflowSource, kAlertClear, kOverflowEndText, std::exchange(overflown_, 0)}, now);
    }
}

/// @return what has revoked a reported alert, and stands as reported itself; nothing when nothing has
std::optional<AlertEngine::Recent::iterator> AlertEngine::successorOf(Recent::const_iterator told) const {
    const State& state = states_.find(told->first.source)->second;
    const bool revoked = !state.waiting && state.latest && (*state.latest)->first.code != told->first.code;
    return revoked ? state.latest : std::nullopt;
}

/// Has an alert wait for its turn that stands for signals counted; one of its source that waits already takes them
/// over.
void AlertEngine::tellAgain(AlertSignal signal, TimePoint happened, std::uint64_t counted) {
    const auto state = states_.find(sourceOf(signal));
    if (state == states_.end() || !state->second.waiting) {
        enqueue({std::move(signal), happened, counted - 1});
        return;
    }
    Waiting& waiting = **state->second.waiting;
    if (happened > waiting.happened) {
        textBytes_ += bytesOf(signal);
        textBytes_ -= bytesOf(waiting.signal);
        waiting.signal = std::move(signal);
        waiting.happened = happened;
    }
    waiting.more += counted;
    status_.waitingSignals += counted;
}

void AlertEngine::forget(Recent::iterator told) {
    const auto state = states_.find(told->first.source);
    if (state->second.latest == told) {
        state->second.latest.reset();
    }
    --state->second.told;
    textBytes_ -= bytesOf(told->first);
    recent_.erase(told);
    forgetIfIdle(state);
}

void AlertEngine::forgetIfIdle(States::iterator state) {
    if (!state->second.waiting && state->second.told == 0) {
        states_.erase(state);
    }
}

void AlertEngine::pump(TimePoint now) {
    while (!queue_.empty()) {
        const Waiting& first = queue_.front();
        // It may have replaced another one, and be the same as one told before that.
        if (const auto told = recent_.find(identityOf(first.signal)); told != recent_.end()) {
            count(told, 1 + first.more, first.signal.value, first.happened);
            dequeue();
        } else if (bucket_.take(now)) {
            deliver(now);
        } else {
            return;
        }
    }
}

void AlertEngine::deliver(TimePoint now) {
    Waiting first = queue_.front();
    dequeue();
    const auto told = recent_.emplace(identityOf(first.signal), Told{now, 0, first.signal.value, first.happened}).first;
    inOrderTold_.push_back(told);
    textBytes_ += bytesOf(told->first);
    State& state = states_[told->first.source];
    state.latest = told;
    ++state.told;
    ++status_.deliveries;
    status_.told += 1 + first.more;
    out_.push_back({std::move(first.signal), first.more, now - first.happened});
}

}  // namespace kx::agent
