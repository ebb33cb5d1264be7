#include "agent/backends/lxc/ResourceWatchHost.h"

#include <algorithm>
#include <utility>

namespace kx::agent::lxc {

AlarmTurn HostKills::look(std::uint64_t host, std::uint64_t containers, TimePoint now) {
    const auto rest = static_cast<std::int64_t>(host - containers);
    const std::int64_t base = base_.value_or(rest);
    const std::int64_t excess = rest - base;
    const std::int64_t before = std::exchange(excess_, excess);
    // What both looks have is neither a kill that is not counted everywhere yet, nor a container's kills of before the
    // host's first look, which are taken for new ones and would hide as many real ones.
    std::int64_t agreed = 0;
    if (before > 0 && excess > 0) {
        agreed = std::min(before, excess);
        total_ += static_cast<std::uint64_t>(agreed);
    } else if (before < 0 && excess < 0) {
        agreed = std::max(before, excess);
    }
    base_ = base + agreed;
    excess_ -= agreed;
    return alarm_.look(agreed > 0, true, now);
}

}  // namespace kx::agent::lxc
