// Whether processes outside of containers were killed for lack of memory, though the kernel counts for the whole host.
//
// A plain value without I/O; the clock is the caller's.
#pragma once

#include <cstdint>
#include <optional>

#include "agent/backends/lxc/ResourceWatchAlarm.h"

namespace kx::agent::lxc {

/// Takes the host's count and what is known of containers. The two are read at different moments, so that a kill may
/// be in one and not yet in the other: only what two looks in a row agree on counts.
class HostKills {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// @param quiet time without a kill before the shortage is over
    explicit HostKills(std::chrono::milliseconds quiet) : alarm_(quiet) {}

    /// @param host processes killed on the whole host since its start
    /// @param containers those of them known to be of containers, since some moment; never less than before
    /// @return what is to be told
    AlarmTurn look(std::uint64_t host, std::uint64_t containers, TimePoint now);

    /// @return kills of the last look that no container is known to have had
    std::uint64_t unexplained() const { return excess_ > 0 ? static_cast<std::uint64_t>(excess_) : 0; }

    /// @return processes killed outside of containers since the first look
    std::uint64_t total() const { return total_; }

private:
    HitAlarm alarm_;
    std::optional<std::int64_t> base_;  ///< the host's count less the containers', as it should be
    std::int64_t excess_ = 0;           ///< how much more it was at the last look
    std::uint64_t total_ = 0;
};

}  // namespace kx::agent::lxc
