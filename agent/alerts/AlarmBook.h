// Which alarms are raised: of each source of each environment the alert that raised it last and was not cleared. It is
// what lets every alarm be cleared, also when its container goes, or when it ended while the agent was not running.
//
// Plain values without I/O; main thread only.
#pragma once

#include <functional>
#include <map>
#include <vector>

#include "agent/alerts/Alert.h"

namespace kx::agent {

/// All raised alarms.
class AlarmBook {
public:
    /// More are not remembered: nothing but their own source clears them.
    static constexpr std::size_t kMost = 100'000;

    /// Texts of clears that no source has reported.
    static constexpr const char* kGoneText = "cleared: the container is gone";
    static constexpr const char* kOverText = "cleared: not found again after a restart of the agent";
    static constexpr const char* kStoppedText = "cleared: the container stopped while this was not watched";

    /// @brief Takes note of a signal.
    /// @param canBeCleared false: what it raises is nobody's to clear, for there is no such environment
    /// @return whether it is to be reported: not where an initial one says what was known
    bool take(const AlertSignal& signal, bool canBeCleared = true);

    /// @return a clear for each alarm of the environments that the function is true of. The alarms stay until take()
    /// is called with it
    std::vector<AlertSignal> clearsFor(const std::function<bool(const Eid&)>& isOver, const char* text) const;

    /// @brief The same, of alarms only that were restored and have not been reported since.
    std::vector<AlertSignal> clearsForRestored(const std::function<bool(const Eid&)>& isOver, const char* text) const;

    bool holds(const Eid& about) const;
    bool empty() const { return alarms_.empty(); }

    std::vector<AlertSignal> raised() const;

    /// @brief Takes over what was raised when a former agent ended.
    void restore(std::vector<AlertSignal> raised);

private:
    struct Alarm {
        AlertSignal signal;
        bool restored = false;
    };

    std::map<AlertKey, Alarm> alarms_;
};

}  // namespace kx::agent
