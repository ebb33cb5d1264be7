// What the client library's thread tells the main thread of a command that watches events.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include <kxl/KXLEvent.h>

#include "ctl/AgentConnection.h"

namespace kx::ctl {

/// One thing that happened.
struct Notice {
    enum class Kind {
        Events,      ///< events came
        Subscribed,  ///< the subscription has reached the agent
        Failed,      ///< the subscription has failed
        LinkLost,    ///< the connection to the agent was lost; what was subscribed fails next
        LinkBack,    ///< it has come back
        Overflow,    ///< events came here that there was no room for
    };

    Kind kind;
    std::uint64_t attempt = 0;     ///< of Subscribed and Failed: which subscription
    std::vector<KXLEvent> events;  ///< of Events, in order
    std::uint64_t missing = 0;     ///< of Overflow: how many events
};

/// @brief A queue of notices in the order in which they were put in. Any thread puts, one thread takes. Putting never
/// waits: events that come faster than they are taken are only counted once there is no room for them.
class Mailbox : public LinkListener {
public:
    /// What waiting events may take in memory, in bytes: as much as an agent keeps for a client that does not read.
    static constexpr std::size_t kRoom = std::size_t{64} * 1024 * 1024;

    /// @throws Failure when the system has no descriptors left
    explicit Mailbox(std::size_t room = kRoom);
    ~Mailbox() override;
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    /// @return readable, for poll(2), while something is in it
    int descriptor() const { return descriptor_; }

    void put(Notice notice);
    void linkLost() override { put({Notice::Kind::LinkLost, 0, {}, 0}); }
    void linkBack() override { put({Notice::Kind::LinkBack, 0, {}, 0}); }

    /// @brief Takes out all that is in it.
    std::deque<Notice> takeAll();

private:
    bool hasRoomFor(const Notice& notice) const;
    void addOverflow(std::uint64_t missing);

    const std::size_t room_;
    const int descriptor_;
    std::mutex mutex_;
    std::deque<Notice> notices_;
    std::size_t bytes_ = 0;  ///< of the events in notices_
};

}  // namespace kx::ctl
