// When to look again at something that tells of its changes: soon after the first of them, and at a slow pace while
// they do not end, so that nobody can keep the looker busy. Clock passed in; one thread at a time.
#pragma once

#include <chrono>

#include "agent/backends/lxc/RecheckList.h"

namespace kx::agent::lxc {

/// The pace of one thing that is looked at.
class LookPacer {
public:
    /// Changes come in bursts: one look this long after the first of them sees them all.
    static constexpr std::chrono::milliseconds kSoon{20};

    /// Looks that may be taken soon, one after the other. Many more than anybody needs who sets something up.
    static constexpr int kSoonLooks = 50;

    /// How long it takes until one more look may be taken soon: the pace at which something that never rests is
    /// looked at.
    static constexpr std::chrono::milliseconds kPace{500};

    /// Looks that are put off fall on common times so far apart, so that many restless things are looked at together.
    static constexpr std::chrono::milliseconds kGrid{250};

    /// @brief When to look after a change.
    /// @param change when it was told of
    /// @return kSoon later; at most kPace + kGrid later when there were too many looks of late
    Clock::time_point dueAfter(Clock::time_point change) const;

    /// @brief Tells that a look was taken.
    void looked(Clock::time_point now);

private:
    /// When all looks so far would have been taken at the slow pace.
    Clock::time_point paid_;
};

}  // namespace kx::agent::lxc
