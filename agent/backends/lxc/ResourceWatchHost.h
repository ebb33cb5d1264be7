// Whether processes were killed because the host ran out of memory. The kernel's count is one for the whole host, and
// has those in it that were killed for a limit of a container's, or of another cgroup's (LimitKills.h).
//
// A plain value without I/O; the clock is the caller's.
#pragma once

#include <cstdint>
#include <optional>

#include "agent/backends/lxc/ResourceWatchAlarm.h"
#include "agent/backends/lxc/ResourceWatchFiles.h"

namespace kx::agent::lxc {

/// Takes the host's counts and what is known of containers and other cgroups. The two are read at different moments, so
/// that a kill may be in one and not yet in the other: only what two looks in a row agree on counts.
class HostKills {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// @param quiet time without a kill before the shortage is over
    explicit HostKills(std::chrono::milliseconds quiet) : alarm_(quiet) {}

    /// @param host what the kernel counts for the whole host
    /// @param explained kills of those that are known to be of containers, or for other cgroups' limits, since some
    /// moment; never fewer than before
    /// @return what is to be told
    AlarmTurn look(const HostMemory& host, std::uint64_t explained, TimePoint now);

    /// @return kills of the last look that nothing is known to explain
    std::uint64_t unexplained() const { return excess_ > 0 ? static_cast<std::uint64_t>(excess_) : 0; }

    /// @return processes killed for the host's sake since the first look
    std::uint64_t total() const { return total_; }

private:
    bool isShort(const HostMemory& host, TimePoint now);

    HitAlarm alarm_;
    std::optional<std::uint64_t> reclaims_;  ///< at the last look
    std::optional<TimePoint> reclaimedAt_;   ///< of the look that last saw them grow
    std::optional<std::int64_t> base_;       ///< the host's count less what is explained, as it should be
    std::int64_t excess_ = 0;                ///< how much more it was at the last look
    std::uint64_t total_ = 0;
};

}  // namespace kx::agent::lxc
