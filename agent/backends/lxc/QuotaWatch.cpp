#include "agent/backends/lxc/QuotaWatch.h"

#include <utility>

namespace kx::agent::lxc {

QuotaWatch::QuotaWatch(std::function<void(AlertSignal)> sink, Reader reader, std::chrono::milliseconds period)
    : sink_(std::move(sink)), reader_(std::move(reader)), period_(period), thread_("quotas") {
    thread_.start([this] { run(); });
}

QuotaWatch::~QuotaWatch() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    changed_.notify_one();
    thread_.join();
}

void QuotaWatch::setTargets(QuotaTargets targets) {
    const std::lock_guard lock(mutex_);
    targets_ = std::move(targets);
}

/// What was set since the last look is taken at the next one: nobody's quota runs out because it starts.
void QuotaWatch::run() {
    std::unique_lock lock(mutex_);
    while (!isEndingWithin(lock, period_)) {
        lock.unlock();
        take();
        lookAtAll();
        lock.lock();
    }
}

void QuotaWatch::take() {
    const QuotaTargets targets = copyOfTargets();
    for (const auto& [eid, rootFolder] : targets) {
        const auto [place, isNew] = watched_.try_emplace(eid, Watched{rootFolder, QuotaAlarms(eid)});
        if (!isNew) {
            place->second.rootFolder = rootFolder;
        }
    }
    std::erase_if(watched_, [&](const auto& entry) {
        return targets.find(entry.first) == targets.end() && !entry.second.alarms.isRaised();
    });
}

void QuotaWatch::lookAtAll() {
    for (const auto& [eid, watched] : watched_) {
        readings_.start(eid.toWire(),
                        [this, reader = reader_, eid = eid, folder = watched.rootFolder]() -> DetachedCalls::Finish {
                            return [this, eid, reading = reader(folder)] { look(eid, reading); };
                        });
    }
    readings_.finishAll(period_);
}

void QuotaWatch::look(const Eid& eid, const QuotaReading& reading) {
    const auto place = watched_.find(eid);
    if (place == watched_.end()) {
        return;
    }
    // Where there is no quota, or no folder any more, the reading has no limits: nothing runs out.
    for (AlertSignal& signal : place->second.alarms.look(reading.quota)) {
        sink_(std::move(signal));
    }
}

bool QuotaWatch::isEndingWithin(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds time) {
    const Worker::Pause pause;
    return changed_.wait_for(lock, time, [this] { return ending_; });
}

QuotaTargets QuotaWatch::copyOfTargets() {
    const std::lock_guard lock(mutex_);
    return targets_;
}

}  // namespace kx::agent::lxc
