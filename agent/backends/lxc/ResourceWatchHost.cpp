#include "agent/backends/lxc/ResourceWatchHost.h"

#include <algorithm>
#include <utility>

namespace kx::agent::lxc {
namespace {

/// From a reclaim in vain to the look that agrees on the kill which it led to: killing may take some seconds.
constexpr std::chrono::seconds kReclaimLasts{10};

}  // namespace

AlarmTurn HostKills::look(const HostMemory& host, std::uint64_t explained, TimePoint now) {
    const bool isShortNow = isShort(host, now);
    const auto rest = static_cast<std::int64_t>(host.kills - explained);
    const std::int64_t base = base_.value_or(rest);
    const std::int64_t excess = rest - base;
    const std::int64_t before = std::exchange(excess_, excess);
    // What both looks have is neither a kill that is not counted everywhere yet, nor a container's kills of before the
    // host's first look, which are taken for new ones and would hide as many real ones.
    std::int64_t agreed = 0;
    if (before > 0 && excess > 0) {
        agreed = std::min(before, excess);
        total_ += isShortNow ? static_cast<std::uint64_t>(agreed) : 0;
    } else if (before < 0 && excess < 0) {
        agreed = std::max(before, excess);
    }
    base_ = base + agreed;
    excess_ -= agreed;
    return alarm_.look(agreed > 0 && isShortNow, true, now);
}

/// Before the kernel kills for the host's sake, whoever needs the memory has tried in vain to reclaim some of the
/// host's. For a limit's sake only what is below the limit is reclaimed, which is not counted there.
bool HostKills::isShort(const HostMemory& host, TimePoint now) {
    const auto before = std::exchange(reclaims_, host.reclaims);
    if (before && host.reclaims && *host.reclaims != *before) {
        reclaimedAt_ = now;
    }
    return !host.reclaims || (reclaimedAt_ && now - *reclaimedAt_ <= kReclaimLasts);
}

}  // namespace kx::agent::lxc
