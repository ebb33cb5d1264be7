// The alert engine at work: woken in time, and with a line in the log when alerts come faster than they may be told.
//
// Main thread only, on the io_context it was given.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <vector>

#include "agent/alerts/AlertEngine.h"

namespace kx::agent {

/// Takes signals and tells alerts, some of them later.
class AlertService {
public:
    using Sink = std::function<void(const std::vector<Alert>&)>;

    /// @param io must outlive the service
    /// @param host see AlertEngine
    /// @param sink gets what is to be told, in order, never nothing; called by take(), setLimits() and on the event
    /// loop
    AlertService(boost::asio::io_context& io, const Eid& host, const AlertLimits& limits, Sink sink);
    AlertService(const AlertService&) = delete;
    AlertService& operator=(const AlertService&) = delete;

    /// @brief Takes a signal; it may be told before this returns.
    void take(AlertSignal signal);

    /// @brief Changes the limits.
    void setLimits(const AlertLimits& limits);

    AlertStatus status() const { return engine_.status(); }

    /// @brief See AlertEngine::outstanding() and the functions beside it.
    std::vector<Alert> outstanding() const { return engine_.outstanding(TimePoint::clock::now()); }
    void restore(const std::vector<Alert>& alerts);
    bool isOutstanding(const Eid& about) const { return engine_.isOutstanding(about); }

private:
    using TimePoint = AlertEngine::TimePoint;

    void tell(const std::vector<Alert>& alerts, TimePoint now);
    void watchStorm(TimePoint now);
    void setTimer();

    boost::asio::steady_timer timer_;
    AlertLimits limits_;
    AlertEngine engine_;
    Sink sink_;
    bool storm_ = false;  ///< alerts have had to wait, not long ago
    TimePoint lastWait_;
    AlertStatus before_;  ///< as the storm began
};

}  // namespace kx::agent
