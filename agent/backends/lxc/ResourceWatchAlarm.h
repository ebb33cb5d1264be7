// When a condition of a resource is told, and when it counts as over: what is seen at each look goes in, what is to be
// told comes out.
//
// Plain values without I/O; the clock is the caller's, and must not go backwards.
#pragma once

#include <chrono>
#include <optional>

namespace kx::agent::lxc {

/// What a look has led to.
enum class AlarmTurn {
    None,
    Raise,  ///< it is the case; told again by every look that finds it go on
    Clear,  ///< it was the case and is over
};

/// For what happens at moments, like the killing of a process: raised by each hit; over when there was none for some
/// time and the resource is at ease.
class HitAlarm {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// @param quiet time without a hit, at least, before it is over
    explicit HitAlarm(std::chrono::milliseconds quiet) : quiet_(quiet) {}

    /// @param hit it has happened since the last look
    /// @param atEase nothing speaks against its being over
    AlarmTurn look(bool hit, bool atEase, TimePoint now);

    bool isRaised() const { return raised_; }

private:
    std::chrono::milliseconds quiet_;
    bool raised_ = false;
    TimePoint lastHit_;
};

/// For a level that is bad only where it stays: raised when its limit was hit and the level is high and stays so; over
/// when the level has stayed low for some time. In between nothing changes.
class LevelAlarm {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Levels are parts of the limit.
    struct Rules {
        double high = 0.95;
        double low = 0.85;
        std::chrono::milliseconds confirm{2000};  ///< from the first hit at a high level until it is told
        std::chrono::milliseconds quiet{10'000};  ///< below the low level until it is over
    };

    explicit LevelAlarm(const Rules& rules) : rules_(rules) {}

    /// @param hit the limit was hit since the last look
    /// @param level used part of the limit; 0 where there is no limit any more
    AlarmTurn look(bool hit, double level, TimePoint now);

    bool isRaised() const { return raised_; }

    /// @return whether the level must be known at the next look even if there is no hit
    bool isUnderWay() const { return raised_ || hitAt_; }

private:
    AlarmTurn lookWhileRaised(bool hit, double level, TimePoint now);

    Rules rules_;
    bool raised_ = false;
    std::optional<TimePoint> hitAt_;     ///< first hit since the level has been high
    std::optional<TimePoint> lowSince_;  ///< while raised
};

}  // namespace kx::agent::lxc
