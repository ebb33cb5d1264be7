#include "client/src/counters/Monitors.h"

#include <algorithm>
#include <utility>

#include "client/src/values/Deliveries.h"

namespace kx::client {

void Monitors::add(std::uint64_t number, MonitorHandlerPtr handler, std::set<std::string> classes) {
    monitors_[number] = {std::move(handler), std::move(classes)};
}

void Monitors::started(std::uint64_t number) {
    const auto monitor = monitors_.find(number);
    if (monitor != monitors_.end()) {
        deliver_([handler = monitor->second.handler] { handler->handleMonitorStart(); });
    }
}

void Monitors::end(std::uint64_t number, int code) {
    const auto found = monitors_.find(number);
    if (found != monitors_.end()) {
        const Monitor monitor = std::move(found->second);
        monitors_.erase(found);
        tell(monitor, code);
    }
}

void Monitors::endAll(int code) {
    for (const auto& [number, monitor] : std::exchange(monitors_, {})) {
        tell(monitor, code);
    }
}

void Monitors::drop() {
    for (const auto& [number, monitor] : std::exchange(monitors_, {})) {
        monitor.handler->setContext(nullptr);
    }
}

std::shared_ptr<std::vector<KXLMonitorData>> Monitors::storageFor(std::uint64_t number) {
    const auto monitor = monitors_.find(number);
    // All who may have it are deliveries, on this thread.
    if (monitor != monitors_.end() && monitor->second.last.use_count() == 1) {
        return monitor->second.last;
    }
    auto fresh = std::make_shared<std::vector<KXLMonitorData>>();
    if (monitor != monitors_.end()) {
        monitor->second.last = fresh;
    }
    return fresh;
}

void Monitors::report(std::uint64_t number, const CounterReport& data) {
    const auto monitor = monitors_.find(number);
    if (monitor != monitors_.end()) {
        hand(monitor->second, data);
    }
}

void Monitors::reportLate(const std::set<std::string>& classes, const CounterReport& data) {
    const auto monitor = std::find_if(monitors_.begin(), monitors_.end(), [&](const auto& entry) {
        const auto& all = entry.second.classes;
        return std::includes(all.begin(), all.end(), classes.begin(), classes.end());
    });
    if (monitor != monitors_.end()) {
        hand(monitor->second, data);
    }
}

void Monitors::tell(const Monitor& monitor, int code) {
    monitor.handler->setContext(nullptr);
    deliver_([handler = monitor.handler, code] { deliverFailure(*handler, code); });
}

void Monitors::hand(const Monitor& monitor, const CounterReport& data) {
    deliver_([handler = monitor.handler, data] { handler->handleData(*data); });
}

}  // namespace kx::client
