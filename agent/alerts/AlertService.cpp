#include "agent/alerts/AlertService.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "agent/base/Log.h"

namespace kx::agent {
namespace {

/// A storm has quiet moments; it is over when nothing has had to wait for this long.
constexpr std::chrono::seconds kCalm{10};

}  // namespace

AlertService::AlertService(boost::asio::io_context& io, const Eid& host, const AlertLimits& limits, Sink sink)
    : timer_(io), limits_(limits), engine_(host, limits), sink_(std::move(sink)) {}

void AlertService::take(AlertSignal signal) {
    const TimePoint now = TimePoint::clock::now();
    tell(engine_.take(std::move(signal), now), now);
}

void AlertService::setLimits(const AlertLimits& limits) {
    limits_ = limits;
    const TimePoint now = TimePoint::clock::now();
    tell(engine_.setLimits(limits, now), now);
}

void AlertService::restore(const std::vector<Alert>& alerts) {
    const TimePoint now = TimePoint::clock::now();
    tell(engine_.restore(alerts, now), now);
}

void AlertService::tell(const std::vector<Alert>& alerts, TimePoint now) {
    if (!alerts.empty()) {
        sink_(alerts);
    }
    watchStorm(now);
    setTimer();
}

void AlertService::watchStorm(TimePoint now) {
    const AlertStatus status = engine_.status();
    if (status.waiting > 0) {
        lastWait_ = now;
        if (!std::exchange(storm_, true)) {
            before_ = status;
            log::warning(
                fmt::format("alerts come faster than {} a second: some wait, and of those that wait only "
                            "the latest of each container and source is told",
                            limits_.perSecond));
        }
    } else if (storm_ && now - lastWait_ >= kCalm) {
        storm_ = false;
        log::info(fmt::format("alerts are told at once again: meanwhile {} were told, for {} signals",
                              status.deliveries - before_.deliveries, status.told - before_.told));
    }
}

void AlertService::setTimer() {
    auto deadline = engine_.nextDeadline();
    if (storm_) {
        deadline = std::min(deadline.value_or(TimePoint::max()), lastWait_ + kCalm);
    }
    if (!deadline) {
        timer_.cancel();
        return;
    }
    timer_.expires_at(*deadline);
    timer_.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled) {
            const TimePoint now = TimePoint::clock::now();
            tell(engine_.advance(now), now);
        }
    });
}

}  // namespace kx::agent
