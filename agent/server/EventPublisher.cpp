#include "agent/server/EventPublisher.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "agent/base/Log.h"
#include "agent/server/EventFrames.h"
#include "wire/Protocol.h"

namespace kx::agent {

EventPublisher::~EventPublisher() {
    for (auto& [connection, stream] : streams_) {
        detach(*stream);
    }
}

void EventPublisher::subscribe(Connection& from, const wire::EventSubscribe& request) {
    if (streams_.contains(&from)) {
        return;
    }
    const ConsumerId id{wire::printable(request.consumer()), from.peer().uid};
    const auto* const other =
        id.name.empty() ? nullptr : find([&](const ConsumerId& each) { return each.name == id.name; });
    if (other != nullptr) {
        log::warning(
            fmt::format("{} and {} are both subscribed as \"{}\": every alert is reported twice until one of "
                        "them is stopped",
                        other->first->peer().describe(), from.peer().describe(), id.name));
    }
    if (id.name.empty() && request.since_ms() != 0) {
        from.sendTogether(history_.since(request.since_ms()));
    }
    attach(*streams_.emplace(&from, std::make_unique<EventStream>(from, host_, id)).first->second);
}

/// The first one of a name has what is kept, until it goes.
void EventPublisher::attach(EventStream& stream) {
    if (consumers_ != nullptr && !stream.consumerId().name.empty()) {
        stream.setConsumer(consumers_->attach(stream.consumerId(), clock_()));
    }
    stream.pump();
}

void EventPublisher::detach(EventStream& stream) {
    if (stream.consumer() != nullptr) {
        consumers_->detach(*stream.consumer(), clock_());
        stream.setConsumer(nullptr);
    }
}

EventPublisher::Streams::value_type* EventPublisher::find(const std::function<bool(const ConsumerId&)>& isWanted) {
    const auto found = std::find_if(streams_.begin(), streams_.end(), [&](const auto& entry) {
        return entry.first->isServed() && isWanted(entry.second->consumerId());
    });
    return found == streams_.end() ? nullptr : &*found;
}

void EventPublisher::acknowledge(Connection& from, const wire::EventAck& request) {
    const auto stream = streams_.find(&from);
    if (stream != streams_.end() && stream->second->consumer() != nullptr) {
        stream->second->consumer()->acknowledge(request.sequence());
        stream->second->pump();
        consumers_->changed();
    }
}

void EventPublisher::drained(Connection& connection) {
    const auto stream = streams_.find(&connection);
    if (stream != streams_.end()) {
        stream->second->pump();
    }
}

void EventPublisher::forget(Connection& connection) {
    const auto known = streams_.find(&connection);
    if (known == streams_.end()) {
        return;
    }
    const std::unique_ptr<EventStream> gone = std::move(known->second);
    streams_.erase(known);
    detach(*gone);
    const ConsumerId& id = gone->consumerId();
    if (id.name.empty()) {
        return;
    }
    if (const auto* const other = find([&](const ConsumerId& each) { return each.name == id.name; })) {
        log::info(fmt::format("{}, subscribed as \"{}\", has gone; {} is still subscribed",
                              connection.peer().describe(), id.name, other->first->peer().describe()));
    }
    auto* const heir = find([&](const ConsumerId& each) { return each == id; });
    if (heir != nullptr && heir->second->consumer() == nullptr) {
        attach(*heir->second);
    }
}

void EventPublisher::publish(const std::vector<Alert>& alerts) {
    const WallTime now = clock_();
    std::vector<DatedAlert> dated;
    dated.reserve(alerts.size());
    for (const Alert& alert : alerts) {
        dated.push_back({alert.signal, alert.more, now - std::chrono::duration_cast<WallTime::duration>(alert.age)});
        if (consumers_ != nullptr) {
            consumers_->add(dated.back());
        }
    }
    const auto frames = encodeEvents(dated);
    history_.add(frames, now);
    for (auto& [connection, stream] : streams_) {
        stream->publish(dated, frames);
    }
    if (consumers_ != nullptr) {
        consumers_->changed();
    }
}

void EventPublisher::publish(const std::vector<EnvironmentChange>& changes) {
    if (changes.empty()) {
        return;
    }
    const WallTime now = clock_();
    const auto frames = encodeEvents(changes, now);
    history_.add(frames, now);
    for (auto& [connection, stream] : streams_) {
        stream->publish(changes, frames, now);
    }
}

}  // namespace kx::agent
