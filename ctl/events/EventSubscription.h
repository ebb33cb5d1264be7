// A subscription to the agent's events, as the client library calls it.
//
// Thread promise: begun on the main thread; everything else runs on the client library's thread.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <cstdint>

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLTaskHandlerPrototype.h>

#include "ctl/events/Mailbox.h"

namespace kx::ctl {

/// @brief Subscribes, and puts what it is called with into a mailbox. One is made for each attempt; it keeps itself
/// alive until it fails or the library's loop stops.
class EventSubscription : public KXLTaskHandlerPrototype {
public:
    /// @brief Begins an attempt. What becomes of it is in the mailbox sooner or later.
    /// @param agent the agent whose events are wanted
    /// @param mailbox must outlive the library's loop
    /// @param attempt tells what concerns this subscription from what is left of an earlier one
    /// @param sinceMs earlier events that are wanted, see KXLAsyncConnectionPrototype::includeSince; 0: none
    static void begin(const KXLAccessPointPrototype& agent, Mailbox& mailbox, std::uint64_t attempt,
                      std::uint64_t sinceMs = 0);

    void handleMessage(KXLMessageTaskPrototype& task) override;
    void handleFailure() override;
    void writeFinished() override { mailbox_.put({Notice::Kind::Subscribed, attempt_, {}, 0}); }

private:
    class Opening;

    EventSubscription(Mailbox& mailbox, std::uint64_t attempt, std::uint64_t sinceMs)
        : mailbox_(mailbox), attempt_(attempt), sinceMs_(sinceMs) {}

    void open(KXLAccessPrototype& access, const KXLEID& agent);

    Mailbox& mailbox_;
    const std::uint64_t attempt_;
    const std::uint64_t sinceMs_;
    boost::intrusive_ptr<KXLAsyncConnectionPrototype> connection_;
};

}  // namespace kx::ctl
