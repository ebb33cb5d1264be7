// All subscriptions to events: who is subscribed, who is a consumer, and two programs of one name that must not be two.
//
// Main thread only.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/server/EventHistory.h"
#include "agent/server/EventStream.h"
#include "kxwire.pb.h"

namespace kx::agent {

/// Sends every event to every subscriber.
class EventPublisher {
public:
    /// @param host see AlertBacklog
    /// @param consumers null: nothing is kept for anybody; else must outlive this
    /// @param clock the time of what is published
    EventPublisher(const Eid& host, EventConsumers* consumers, std::function<WallTime()> clock)
        : host_(host), consumers_(consumers), clock_(std::move(clock)) {}
    ~EventPublisher();
    EventPublisher(const EventPublisher&) = delete;
    EventPublisher& operator=(const EventPublisher&) = delete;

    /// @brief Takes a subscription, whose confirmation has been queued. A second one of a connection changes nothing.
    void subscribe(Connection& from, const wire::EventSubscribe& request);

    /// @brief Forgets the messages that a consumer has handled.
    void acknowledge(Connection& from, const wire::EventAck& request);

    /// @brief The connection has read something of what it was sent.
    void drained(Connection& connection);

    /// @brief The connection is closed.
    void forget(Connection& connection);

    /// @brief Sends alerts, and keeps them for consumers.
    void publish(const std::vector<Alert>& alerts);
    void publish(const std::vector<EnvironmentChange>& changes);

private:
    using Streams = std::unordered_map<Connection*, std::unique_ptr<EventStream>>;

    void attach(EventStream& stream);
    void detach(EventStream& stream);
    Streams::value_type* find(const std::function<bool(const ConsumerId&)>& isWanted);

    const Eid host_;
    EventConsumers* const consumers_;
    const std::function<WallTime()> clock_;
    Streams streams_;
    EventHistory history_;
};

}  // namespace kx::agent
