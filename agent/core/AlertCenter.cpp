#include "agent/core/AlertCenter.h"

#include <boost/asio/post.hpp>
#include <set>
#include <unordered_set>
#include <utility>

namespace kx::agent {
namespace {

/// Between checks for consumers that have been away for too long.
constexpr std::chrono::hours kForgetPeriod{1};

WallTime wallNow() {
    return std::chrono::system_clock::now();
}

std::vector<Alert> undated(const std::vector<DatedAlert>& alerts) {
    std::vector<Alert> list;
    for (const DatedAlert& alert : alerts) {
        const auto age = std::max(wallNow() - alert.happened, WallTime::duration::zero());
        list.push_back({alert.signal, alert.more, age});
    }
    return list;
}

}  // namespace

AlertCenter::AlertCenter(boost::asio::io_context& io, Inventory& inventory, const AlertLimits& limits,
                         const std::string& stateDirectory, Sinks sinks)
    : io_(io),
      inventory_(inventory),
      host_(inventory.environments().front().eid),
      sinks_(std::move(sinks)),
      consumers_(host_),
      service_(io, host_, limits, [this](const std::vector<Alert>& alerts) { publish(alerts); }),
      keeper_(io, stateDirectory, [this] { return collect(); }),
      forgetTimer_(io),
      checkTimer_(io) {
    consumers_.onChange([this] { changed(); });
    waitToForget();
}

void AlertCenter::restore() {
    AlertState state = keeper_.load();
    inventory_.restoreDeparted(std::move(state.environments));
    book_.restore(std::move(state.raised));
    consumers_.restore(state.consumers, wallNow());
    service_.restore(undated(state.waiting));
}

void AlertCenter::take(AlertSignal signal) {
    if (book_.take(signal, inventory_.contains(signal.about))) {
        service_.take(std::move(signal));
    }
    changed();
}

void AlertCenter::takeAll(std::vector<AlertSignal> signals) {
    for (AlertSignal& signal : signals) {
        take(std::move(signal));
    }
}

void AlertCenter::clearWhatIsGone(const HostImage& image) {
    if (book_.empty()) {
        return;
    }
    std::unordered_set<Eid, EidHash> present{host_};
    for (const Environment& environment : image.environments) {
        present.insert(environment.eid);
    }
    takeAll(book_.clearsFor([&](const Eid& eid) { return !present.contains(eid); }, AlarmBook::kGoneText));
}

void AlertCenter::clearWhatIsOver() {
    const auto isStopped = [&](const Eid& eid) {
        const Environment* const environment = inventory_.find(eid);
        return environment != nullptr && environment->state == static_cast<std::int32_t>(State::Stopped);
    };
    takeAll(book_.clearsForRestored(isStopped, AlarmBook::kStoppedText));
    if (std::exchange(checking_, true)) {
        return;
    }
    checkTimer_.expires_after(kCheckTime);
    checkTimer_.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled) {
            takeAll(book_.clearsForRestored([](const Eid&) { return true; }, AlarmBook::kOverText));
        }
    });
}

bool AlertCenter::isOutstanding(const Eid& about) const {
    return book_.holds(about) || service_.isOutstanding(about) || consumers_.isOutstanding(about);
}

void AlertCenter::publish(const std::vector<Alert>& alerts) {
    sinks_.alerts(alerts);
    changed();
}

void AlertCenter::changed() {
    keeper_.changed();
    settle();
}

void AlertCenter::settle() {
    if (inventory_.departed().empty() || std::exchange(settling_, true)) {
        return;
    }
    boost::asio::post(io_, [this, alive = std::weak_ptr(alive_)] {
        if (!alive.expired()) {
            settling_ = false;
            sinks_.inventory(inventory_.release([this](const Eid& eid) { return isOutstanding(eid); }));
        }
    });
}

void AlertCenter::waitToForget() {
    forgetTimer_.expires_after(kForgetPeriod);
    forgetTimer_.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled) {
            consumers_.forgetAway(wallNow());
            waitToForget();
        }
    });
}

AlertState AlertCenter::collect() const {
    AlertState state;
    state.consumers = consumers_.kept();
    for (const Alert& alert : service_.outstanding()) {
        const auto age = std::chrono::duration_cast<WallTime::duration>(alert.age);
        state.waiting.push_back({alert.signal, alert.more, wallNow() - age});
    }
    state.raised = book_.raised();
    state.environments = environmentsOf(state);
    return state;
}

std::vector<Environment> AlertCenter::environmentsOf(const AlertState& state) const {
    std::set<Eid> concerned;
    for (const KeptConsumer& consumer : state.consumers) {
        for (const DatedAlert& alert : consumer.alerts) {
            concerned.insert(alert.signal.about);
        }
    }
    for (const DatedAlert& alert : state.waiting) {
        concerned.insert(alert.signal.about);
    }
    for (const AlertSignal& alarm : state.raised) {
        concerned.insert(alarm.about);
    }
    std::vector<Environment> environments;
    for (const Eid& eid : concerned) {
        if (const Environment* const environment = inventory_.find(eid); environment != nullptr && eid != host_) {
            environments.push_back(*environment);
        }
    }
    return environments;
}

}  // namespace kx::agent
