// Alerts that a client cannot be sent yet: of each source the latest, which stands for those it has replaced. So a
// client that is away or slow costs a bounded amount of memory, and every alert is delivered or in a count.
//
// A plain value without I/O; one thread at a time.
#pragma once

#include <cstddef>
#include <list>
#include <map>
#include <vector>

#include "agent/alerts/Alert.h"

namespace kx::agent {

/// Alerts in the order in which their sources began to wait.
class AlertBacklog {
public:
    struct Bounds {
        std::size_t entries = 20'000;
        std::size_t textBytes = std::size_t{4} * 1024 * 1024;
    };

    /// Source and text of the alert about the host that stands for what there was no space for.
    static constexpr const char* kOverflowSource = "alerts.kept";
    static constexpr const char* kOverflowText = "there are more alerts than can be kept: some are only counted";

    /// @param host whom an overflow is reported about
    AlertBacklog(const Eid& host, const Bounds& bounds) : host_(host), bounds_(bounds) {}

    /// @brief Adds an alert behind the others, or in the place of the one of its source. Beyond the bounds it is only
    /// counted, in an alert about the host; one that clears is always kept.
    void add(DatedAlert alert);

    /// @brief Takes the alerts out that have waited longest, at least one if there is any.
    /// @param most number of alerts
    /// @param textBytes of their texts
    std::vector<DatedAlert> take(std::size_t most, std::size_t textBytes);

    /// @return whether there is an alert about the environment
    bool holds(const Eid& about) const;

    bool empty() const { return queue_.empty(); }
    const std::list<DatedAlert>& alerts() const { return queue_; }

    /// @return signals that were only counted for lack of space, so far
    std::uint64_t overflown() const { return overflown_; }

private:
    static std::size_t bytesOf(const DatedAlert& alert) {
        return alert.signal.text.size() + alert.signal.source.size();
    }
    bool fits(const DatedAlert& alert) const;
    void replace(std::list<DatedAlert>::iterator place, DatedAlert alert);

    Eid host_;
    Bounds bounds_;
    std::list<DatedAlert> queue_;
    std::map<AlertKey, std::list<DatedAlert>::iterator> places_;
    std::size_t textBytes_ = 0;
    std::uint64_t overflown_ = 0;
};

}  // namespace kx::agent
