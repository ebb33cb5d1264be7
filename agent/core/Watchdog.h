// Keeps the service manager's watchdog (WatchdogSec= of the unit) from ending the agent while it works.
#pragma once

#include <boost/asio/steady_timer.hpp>
#include <chrono>

namespace kx::agent {

/// Notifies the service manager from its construction to its destruction, on the main thread, while that runs and no
/// Worker has been at work without a pause for half of the unit's time. Without a watchdog nothing happens.
class Watchdog {
public:
    explicit Watchdog(boost::asio::io_context& io);

private:
    void check();

    const std::chrono::milliseconds time_;  ///< after which the service manager would end the agent; 0: never
    boost::asio::steady_timer timer_;
    bool withheld_ = false;
};

}  // namespace kx::agent
