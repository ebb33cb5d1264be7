// What one subscriber is sent of events: at once as long as it reads, coalesced when it does not. It is never dropped
// for events, and no alert is lost without a count:
//
//   - a subscriber that has ServerLimits::maxUnsentEventBytes unread gets, once it has read them, the latest alert of
//     each source, and the latest change of each environment
//   - one that is a consumer gets its alerts in numbered messages, as many as it acknowledges (EventConsumers.h)
//
// Main thread only.
#pragma once

#include <memory>
#include <unordered_map>
#include <vector>

#include "agent/alerts/EventConsumers.h"
#include "agent/inventory/EnvironmentChange.h"
#include "agent/server/Connection.h"

namespace kx::agent {

/// One subscription; ends with its connection.
class EventStream {
public:
    /// Alerts and changes held back for a subscriber that is no consumer and does not read.
    static constexpr AlertBacklog::Bounds kHeldAlerts{2000, std::size_t{256} * 1024};
    static constexpr std::size_t kHeldChanges = 2000;

    /// @param connection must outlive the stream
    /// @param host see AlertBacklog
    /// @param consumer who subscribes; empty name: nobody who acknowledges
    EventStream(Connection& connection, const Eid& host, ConsumerId consumer)
        : connection_(connection), consumerId_(std::move(consumer)), alerts_(host, kHeldAlerts) {}

    /// @brief What has happened now.
    /// @param alerts not needed for a consumer, which has them waiting already
    /// @param frames the same, encoded
    void publish(const std::vector<DatedAlert>& alerts, const std::vector<FrameBody>& frames);
    void publish(const std::vector<EnvironmentChange>& changes, const std::vector<FrameBody>& frames, WallTime now);

    /// @brief Sends what was held back, as much as the subscriber takes. To be called when it has read.
    void pump();

    /// @brief From now on the alerts of this consumer are sent here; null: those that are published.
    void setConsumer(EventConsumer* consumer) { consumer_ = consumer; }
    EventConsumer* consumer() const { return consumer_; }
    const ConsumerId& consumerId() const { return consumerId_; }

private:
    struct HeldChange {
        EnvironmentChange change;
        WallTime happened;
    };

    bool takesMore() const;
    bool isHeldBack() const { return !alerts_.empty() || !changes_.empty(); }
    void hold(const EnvironmentChange& change, WallTime now);
    void noteHeldBack();
    void noteCaughtUp();
    void sendChanges();
    void sendHeldAlerts();
    void sendToConsumer();

    Connection& connection_;
    const ConsumerId consumerId_;
    EventConsumer* consumer_ = nullptr;
    AlertBacklog alerts_;
    std::vector<HeldChange> changes_;
    std::unordered_map<Eid, std::size_t, EidHash> placeOfChange_;
    std::uint64_t changesLost_ = 0;
    bool reported_ = false;  ///< that it is held back
};

}  // namespace kx::agent
