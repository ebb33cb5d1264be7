#include "agent/core/Watchdog.h"

#include <fmt/format.h>

#include "agent/base/Log.h"
#include "agent/base/Worker.h"
#include "agent/core/ServiceManager.h"

namespace kx::agent {

Watchdog::Watchdog(boost::asio::io_context& io) : time_(watchdogTime()), timer_(io) {
    if (time_ > std::chrono::milliseconds(0)) {
        check();
    }
}

void Watchdog::check() {
    const auto busiest = Worker::busiest();
    const bool stuck = busiest && busiest->time > time_ / 2;
    if (!stuck) {
        notifyAlive();
    } else if (!withheld_) {
        log::error(
            fmt::format("thread {} has made no progress for {} ms: the service manager is not notified any more and "
                        "will restart the agent",
                        busiest->name, busiest->time.count()));
    }
    withheld_ = stuck;
    timer_.expires_after(time_ / 4);
    timer_.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled) {
            check();
        }
    });
}

}  // namespace kx::agent
