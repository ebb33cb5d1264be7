// The pace of traps: they are sent as fast as the master agent reads them.
//
// Thread promise: the event loop's thread, but for what says otherwise. No lock is held while it waits.
#pragma once

#include <chrono>
#include <functional>

#include <kxl/KXLEventLoopPrototype.h>

#include "traps/MasterSession.h"

/// @brief Waits for room in the session with the master agent, before the link's lock is taken for a trap.
class TrapPace {
public:
    using Clock = std::chrono::steady_clock;

    /// A wait ends after this, and there is none any more until there has been room again.
    static constexpr std::chrono::milliseconds longestStall{250};

    /// @brief What it looks at; injected by tests.
    struct Surroundings {
        std::function<MasterSession::Room()> room;
        std::function<bool()> isLoopWaitedFor;  ///< then the master's answers are not read: waiting would be in vain
        std::function<Clock::time_point()> now;
        std::function<void()> pause;  ///< lets a millisecond pass
    };

    explicit TrapPace(Surroundings surroundings) : surroundings_(std::move(surroundings)) {}

    /// The one of the process.
    static TrapPace& instance();

    /// @brief Returns when there is ample room, or waiting has no use.
    void waitForRoom();

private:
    bool isAmple() const { return surroundings_.room() == MasterSession::Room::Ample; }

    const Surroundings surroundings_;
    bool hasStalled_ = false;
};

/// @brief Holds events back while there is no ample room, so that they stay with the management agent, which folds
/// repeated alerts into one.
class TrapGate : public KXLEventGatePrototype {
public:
    bool isOpen() override;
};
