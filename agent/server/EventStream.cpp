#include "agent/server/EventStream.h"

#include <fmt/format.h>

#include <utility>

#include "agent/base/Log.h"
#include "agent/server/EventFrames.h"

namespace kx::agent {

bool EventStream::takesMore() const {
    return connection_.isServed() && connection_.unsent() <= connection_.limits().maxUnsentEventBytes;
}

void EventStream::publish(const std::vector<DatedAlert>& alerts, const std::vector<FrameBody>& frames) {
    if (consumer_ != nullptr) {
        pump();
    } else if (takesMore() && !isHeldBack()) {
        connection_.sendTogether(frames);
    } else {
        noteHeldBack();
        for (const DatedAlert& alert : alerts) {
            alerts_.add(alert);
        }
    }
}

void EventStream::publish(const std::vector<EnvironmentChange>& changes, const std::vector<FrameBody>& frames,
                          WallTime now) {
    if (takesMore() && !isHeldBack()) {
        connection_.sendTogether(frames);
        return;
    }
    noteHeldBack();
    for (const EnvironmentChange& change : changes) {
        hold(change, now);
    }
}

/// The latest change of an environment takes the place of those before; what it has become is what counts.
void EventStream::hold(const EnvironmentChange& change, WallTime now) {
    const auto known = placeOfChange_.find(change.eid);
    if (known != placeOfChange_.end()) {
        changes_[known->second] = {change, now};
    } else if (changes_.size() < kHeldChanges) {
        placeOfChange_.emplace(change.eid, changes_.size());
        changes_.push_back({change, now});
    } else {
        ++changesLost_;
    }
}

void EventStream::noteHeldBack() {
    if (!std::exchange(reported_, true)) {
        log::warning(
            fmt::format("{} does not read its events: until it has, only the latest of each source is kept "
                        "for it",
                        connection_.peer().describe()));
    }
}

void EventStream::noteCaughtUp() {
    if (!std::exchange(reported_, false)) {
        return;
    }
    log::info(fmt::format("{} reads its events again; {} environment changes were dropped, {} alerts only counted",
                          connection_.peer().describe(), std::exchange(changesLost_, 0), alerts_.overflown()));
}

void EventStream::pump() {
    sendChanges();
    sendHeldAlerts();
    sendToConsumer();
    if (!isHeldBack() && takesMore()) {
        noteCaughtUp();
    }
}

void EventStream::sendChanges() {
    if (changes_.empty() || !takesMore()) {
        return;
    }
    placeOfChange_.clear();
    for (const HeldChange& held : std::exchange(changes_, {})) {
        connection_.sendTogether(encodeEvents({held.change}, held.happened));
    }
}

void EventStream::sendHeldAlerts() {
    while (!alerts_.empty() && takesMore()) {
        connection_.sendTogether(
            encodeEvents(alerts_.take(EventConsumer::kMessageAlerts, EventConsumer::kMessageBytes)));
    }
}

void EventStream::sendToConsumer() {
    while (consumer_ != nullptr && consumer_->hasNext() && takesMore()) {
        const ConsumerMessage message = consumer_->next();
        connection_.sendTogether(encodeEvents(message.alerts, message.sequence));
    }
}

}  // namespace kx::agent
