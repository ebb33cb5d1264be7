// Programs that must get every alert: what they have not acknowledged is kept, while they are connected, while they are
// away, and over the agent's restarts (whoever owns this saves and restores it).
//
// A consumer is known by its name and by the user it runs as, so that nobody takes another user's alerts away. Plain
// values without I/O; main thread only.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/alerts/AlertBacklog.h"

namespace kx::agent {

/// Which consumer.
struct ConsumerId {
    std::string name;
    uid_t uid = 0;
    auto operator<=>(const ConsumerId&) const = default;  // NOLINT(modernize-use-nullptr): code the compiler makes
};

/// Alerts that are sent in one message, and what they are acknowledged by.
struct ConsumerMessage {
    std::uint64_t sequence = 0;
    std::vector<DatedAlert> alerts;
};

/// One of them. Alerts wait, are sent in messages, and are forgotten when these are acknowledged.
class EventConsumer {
public:
    /// Alerts in one message: few enough for acknowledgements to come often.
    static constexpr std::size_t kMessageAlerts = 500;
    static constexpr std::size_t kMessageBytes = std::size_t{256} * 1024;
    /// Alerts that are sent and not acknowledged; beyond it further ones wait, and are coalesced.
    static constexpr std::size_t kWindowAlerts = 1000;
    static constexpr std::size_t kWindowMessages = 500;

    EventConsumer(const Eid& host, const AlertBacklog::Bounds& bounds) : host_(host), bounds_(bounds) {}

    void add(DatedAlert alert) { waiting_.add(std::move(alert)); }

    /// @return whether next() has something to send
    bool hasNext() const;

    /// @brief The next message; it counts as sent.
    ConsumerMessage next();

    /// @brief Forgets the alerts of all messages up to this one.
    void acknowledge(std::uint64_t sequence);

    /// @brief What was sent and not acknowledged will be sent again, and messages are counted from 1.
    void disconnected();

    bool holds(const Eid& about) const;

    /// @return everything that is not acknowledged, the oldest first
    AlertBacklog unacknowledged() const;

private:
    friend class EventConsumers;

    Eid host_;
    AlertBacklog::Bounds bounds_;
    AlertBacklog waiting_{host_, bounds_};
    std::deque<ConsumerMessage> sent_;
    std::size_t alertsSent_ = 0;  ///< in sent_
    std::uint64_t lastSequence_ = 0;
    bool connected_ = false;
    WallTime lastSeen_;
};

/// What is kept of a consumer over a restart.
struct KeptConsumer {
    ConsumerId id;
    std::optional<WallTime> away;  ///< since when; nothing: it was connected
    std::vector<DatedAlert> alerts;
};

/// All consumers.
class EventConsumers {
public:
    /// Consumers at most; of those that are away the one that has been longest makes place for a new one.
    static constexpr std::size_t kMost = 8;
    /// Of one user other than root.
    static constexpr std::size_t kMostOfUser = 2;
    /// Who has been away for this long is forgotten.
    static constexpr std::chrono::hours kForgetAfter{7 * 24};

    /// @param host see AlertBacklog
    explicit EventConsumers(const Eid& host, const AlertBacklog::Bounds& bounds = {}) : host_(host), bounds_(bounds) {}

    /// @brief A consumer subscribes.
    /// @return null when one of this name and user is connected already, or there are too many; else valid until
    /// detach()
    EventConsumer* attach(const ConsumerId& id, WallTime now);

    /// @brief A connected consumer has gone.
    void detach(EventConsumer& consumer, WallTime now);

    /// @brief Keeps an alert for every consumer.
    void add(const DatedAlert& alert);

    /// @brief Forgets who has been away for too long.
    void forgetAway(WallTime now);

    /// @return whether somebody is still to get something about the environment
    bool isOutstanding(const Eid& about) const;

    std::vector<KeptConsumer> kept() const;
    /// @param now from when on those are away that were connected
    void restore(const std::vector<KeptConsumer>& kept, WallTime now);

    /// @brief Has a function called after every change of what is kept.
    void onChange(std::function<void()> changed) { changed_ = std::move(changed); }
    /// @brief To be called by who has changed a consumer.
    void changed() const {
        if (changed_) {
            changed_();
        }
    }

private:
    bool makePlaceFor(const ConsumerId& id);
    bool forgetLongestAway(const std::function<bool(const ConsumerId&)>& mayGo);

    Eid host_;
    AlertBacklog::Bounds bounds_;
    std::map<ConsumerId, EventConsumer> consumers_;
    std::function<void()> changed_;
};

}  // namespace kx::agent
