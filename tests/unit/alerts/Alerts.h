// What the tests of the alert engine share: a clock of their own and signals to begin with.
#pragma once

#include <string>
#include <vector>

#include "agent/alerts/AlertEngine.h"
#include "tests/unit/alerts/PrintAlert.h"

namespace kx::agent::test {

using std::chrono::milliseconds;
using std::chrono::seconds;
using TimePoint = AlertEngine::TimePoint;

inline Eid eidOf(const std::string& name) {
    return Eid::fromName("test machine", name);
}

inline AlertSignal signalOf(const std::string& text, std::int64_t value = 0, std::int32_t code = kAlertCritical,
                            const std::string& about = "web", const std::string& source = "memory.oom") {
    return {eidOf(about), source, code, text, value};
}

inline AlertSignal clearOf(const std::string& text, std::int64_t value = 0) {
    return signalOf(text, value, kAlertClear);
}

/// An engine with a clock that the test moves. What it tells is kept.
class EngineWithClock {
public:
    explicit EngineWithClock(const AlertLimits& limits = {}, const AlertBounds& bounds = {})
        : engine_(eidOf("host"), limits, bounds) {}

    void take(AlertSignal signal) { keep(engine_.take(std::move(signal), now_)); }

    void setLimits(const AlertLimits& limits) { keep(engine_.setLimits(limits, now_)); }

    /// @brief Moves the clock, and calls the engine whenever it wants to be called on the way.
    void pass(std::chrono::nanoseconds time) {
        const TimePoint end = now_ + time;
        for (auto next = engine_.nextDeadline(); next && *next <= end; next = engine_.nextDeadline()) {
            now_ = std::max(now_, *next);
            keep(engine_.advance(now_));
        }
        now_ = end;
    }

    /// @brief Moves the clock without the engine's being called.
    void jump(std::chrono::nanoseconds time) { now_ += time; }

    void advance() { keep(engine_.advance(now_)); }

    /// @return the texts told since the last call
    std::vector<std::string> texts() {
        std::vector<std::string> texts;
        for (const Alert& alert : fresh_) {
            texts.push_back(textOf(alert));
        }
        fresh_.clear();
        return texts;
    }

    /// @return what was told since the last call
    std::vector<Alert> told() { return std::exchange(fresh_, {}); }

    const AlertEngine& engine() const { return engine_; }
    TimePoint now() const { return now_; }

private:
    void keep(std::vector<Alert> alerts) { std::move(alerts.begin(), alerts.end(), std::back_inserter(fresh_)); }

    TimePoint now_{std::chrono::hours(1)};
    AlertEngine engine_;
    std::vector<Alert> fresh_;
};

}  // namespace kx::agent::test
