#include "agent/alerts/EventConsumers.h"

#include <algorithm>
#include <utility>

namespace kx::agent {

bool EventConsumer::hasNext() const {
    return !waiting_.empty() && alertsSent_ < kWindowAlerts && sent_.size() < kWindowMessages;
}

ConsumerMessage EventConsumer::next() {
    ConsumerMessage message{++lastSequence_, waiting_.take(kMessageAlerts, kMessageBytes)};
    alertsSent_ += message.alerts.size();
    sent_.push_back(message);
    return message;
}

void EventConsumer::acknowledge(std::uint64_t sequence) {
    while (!sent_.empty() && sent_.front().sequence <= sequence) {
        alertsSent_ -= sent_.front().alerts.size();
        sent_.pop_front();
    }
}

void EventConsumer::disconnected() {
    waiting_ = unacknowledged();
    sent_.clear();
    alertsSent_ = 0;
    lastSequence_ = 0;
}

bool EventConsumer::holds(const Eid& about) const {
    const auto isAbout = [&](const DatedAlert& alert) { return alert.signal.about == about; };
    return waiting_.holds(about) || std::any_of(sent_.begin(), sent_.end(), [&](const ConsumerMessage& message) {
               return std::any_of(message.alerts.begin(), message.alerts.end(), isAbout);
           });
}

AlertBacklog EventConsumer::unacknowledged() const {
    AlertBacklog all(host_, bounds_);
    for (const ConsumerMessage& message : sent_) {
        for (const DatedAlert& alert : message.alerts) {
            all.add(alert);
        }
    }
    for (const DatedAlert& alert : waiting_.alerts()) {
        all.add(alert);
    }
    return all;
}

EventConsumer* EventConsumers::attach(const ConsumerId& id, WallTime now) {
    if (!consumers_.contains(id) && !makePlaceFor(id)) {
        return nullptr;
    }
    EventConsumer& consumer = consumers_.try_emplace(id, host_, bounds_).first->second;
    if (std::exchange(consumer.connected_, true)) {
        return nullptr;
    }
    consumer.lastSeen_ = now;
    changed();
    return &consumer;
}

/// A user who is not root has a few, and cannot push out those of others.
bool EventConsumers::makePlaceFor(const ConsumerId& id) {
    const auto isOwn = [&](const ConsumerId& other) { return other.uid == id.uid; };
    const auto own =
        std::count_if(consumers_.begin(), consumers_.end(), [&](const auto& it) { return isOwn(it.first); });
    if (id.uid != 0 && static_cast<std::size_t>(own) >= kMostOfUser) {
        return forgetLongestAway(isOwn);
    }
    return consumers_.size() < kMost ||
           forgetLongestAway([&](const ConsumerId& other) { return id.uid == 0 || isOwn(other); });
}

bool EventConsumers::forgetLongestAway(const std::function<bool(const ConsumerId&)>& mayGo) {
    auto oldest = consumers_.end();
    for (auto each = consumers_.begin(); each != consumers_.end(); ++each) {
        const bool fits = !each->second.connected_ && mayGo(each->first);
        if (fits && (oldest == consumers_.end() || each->second.lastSeen_ < oldest->second.lastSeen_)) {
            oldest = each;
        }
    }
    if (oldest == consumers_.end()) {
        return false;
    }
    consumers_.erase(oldest);
    return true;
}

void EventConsumers::detach(EventConsumer& consumer, WallTime now) {
    consumer.disconnected();
    consumer.connected_ = false;
    consumer.lastSeen_ = now;
    changed();
}

void EventConsumers::add(const DatedAlert& alert) {
    for (auto& [id, consumer] : consumers_) {
        consumer.add(alert);
    }
}

void EventConsumers::forgetAway(WallTime now) {
    const auto isForgotten = [&](const auto& entry) {
        return !entry.second.connected_ && now - entry.second.lastSeen_ > kForgetAfter;
    };
    if (std::erase_if(consumers_, isForgotten) != 0) {
        changed();
    }
}

bool EventConsumers::isOutstanding(const Eid& about) const {
    return std::any_of(consumers_.begin(), consumers_.end(),
                       [&](const auto& entry) { return entry.second.holds(about); });
}

std::vector<KeptConsumer> EventConsumers::kept() const {
    std::vector<KeptConsumer> all;
    for (const auto& [id, consumer] : consumers_) {
        const AlertBacklog backlog = consumer.unacknowledged();
        all.push_back({id, consumer.connected_ ? std::nullopt : std::optional(consumer.lastSeen_), {}});
        all.back().alerts.assign(backlog.alerts().begin(), backlog.alerts().end());
    }
    return all;
}

void EventConsumers::restore(const std::vector<KeptConsumer>& kept, WallTime now) {
    for (const KeptConsumer& each : kept) {
        EventConsumer& consumer = consumers_.try_emplace(each.id, host_, bounds_).first->second;
        consumer.lastSeen_ = each.away.value_or(now);
        for (const DatedAlert& alert : each.alerts) {
            consumer.add(alert);
        }
    }
}

}  // namespace kx::agent
