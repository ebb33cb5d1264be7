// The latest events, for subscribers that ask for what was before.
//
// Main thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "agent/inventory/FrameBody.h"
#include "agent/server/EventFrames.h"

namespace kx::agent {

/// Frames of events as they were sent, the oldest dropped when there are too many.
class EventHistory {
public:
    /// What is kept: far more than a person reads, far less than would be noticed.
    static constexpr std::size_t kMostBytes = std::size_t{1024} * 1024;
    /// Frames of one event take more memory than their bytes.
    static constexpr std::size_t kMostFrames = 4096;

    /// @param sent when
    void add(const std::vector<FrameBody>& frames, WallTime sent);

    /// @param sinceMs milliseconds since 1970-01-01 UTC
    /// @return those that were sent from then on, in order; what happened before may be in the first ones
    std::vector<FrameBody> since(std::uint64_t sinceMs) const;

private:
    struct Sent {
        std::uint64_t ms;  ///< since 1970-01-01 UTC
        FrameBody frame;
    };

    std::deque<Sent> sent_;
    std::size_t bytes_ = 0;
};

}  // namespace kx::agent
