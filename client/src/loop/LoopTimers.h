// Timeouts that fire on an event loop.
//
// Thread promise: add() from any thread, at once; everything else on the loop thread.
#pragma once

#include <boost/asio/steady_timer.hpp>
#include <boost/intrusive_ptr.hpp>
#include <memory>
#include <set>

#include <kxl/KXLTimeoutHandlerPrototype.h>

#include "client/src/loop/Loop.h"

namespace kx::client {

/// @brief Keeps timeouts until they fire, or the loop stops: then they are dropped without being called.
class LoopTimers : public std::enable_shared_from_this<LoopTimers>, public LoopClient {
public:
    static std::shared_ptr<LoopTimers> create(std::shared_ptr<Loop> loop);

    /// @brief Fires a timeout once when its time has come.
    /// @return 0; -1 when the loop does not run
    int add(boost::intrusive_ptr<KXLTimeoutHandlerPrototype> handler);

private:
    using Timer = boost::asio::steady_timer;

    explicit LoopTimers(std::shared_ptr<Loop> loop) : loop_(std::move(loop)) {}

    void loopStopping() override;
    void begin(const boost::intrusive_ptr<KXLTimeoutHandlerPrototype>& handler);

    const std::shared_ptr<Loop> loop_;
    std::set<std::shared_ptr<Timer>> pending_;
};

}  // namespace kx::client
