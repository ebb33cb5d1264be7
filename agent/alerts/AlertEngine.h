// Decides which alerts are told when, so that neither one stubborn source nor a storm on the whole host drowns those
// who are told; and keeps account, so that nothing gets lost.
//
//   - The same alert (equal in whom it is about, source, code and text) is told at most once in AlertLimits::repeat.
//     Signals that come meanwhile are counted; when the time is over it is told again, with the latest value, for all
//     that were counted.
//   - All alerts together are told at most AlertLimits::perSecond times a second. Of those beyond it the latest of
//     each (about, source) waits, and stands for those it has replaced; the waiting are told in the order in which
//     they began to wait.
//   - What was counted of an alert that its source has since revoked (whose code is no longer that of the source's
//     latest signal) is not told by telling it again, which would make it look raised: the latest one stands for it.
//   - Beyond AlertBounds signals are only counted, in one alert about the host, which is cleared when it is over.
//
// An alert that stands for N signals besides its own has " (and N more)" behind its text. At any time, the signals
// taken and the engine's own are the deliveries plus their N plus what status() says is counted or waiting.
//
// Main thread only. Does no I/O; the caller brings the time, which must not go backwards.
#pragma once

#include <cstddef>
#include <deque>
#include <list>
#include <map>
#include <optional>
#include <vector>

#include "agent/alerts/Alert.h"
#include "agent/alerts/AlertLimits.h"
#include "agent/alerts/TokenBucket.h"

namespace kx::agent {

/// Numbers for the log.
struct AlertStatus {
    std::uint64_t signals = 0;         ///< taken so far
    std::uint64_t ownSignals = 0;      ///< made so far by the engine itself: an overflow is over
    std::uint64_t deliveries = 0;      ///< alerts told so far
    std::uint64_t told = 0;            ///< signals these stood for
    std::uint64_t counted = 0;         ///< signals counted now: their alert will be told again
    std::uint64_t waiting = 0;         ///< alerts that wait for their turn now
    std::uint64_t waitingSignals = 0;  ///< signals these will stand for
};

/// The engine of one agent.
class AlertEngine {
public:
    using TimePoint = TokenBucket::TimePoint;

    /// Source and text of the engine's own alert about the host.
    static constexpr const char* kOverflowSource = "alerts";
    static constexpr const char* kOverflowText = "there are more alerts than can be told apart: some are only counted";
    static constexpr const char* kOverflowEndText = "all alerts are told apart again";

    /// @param host whom an overflow is reported about
    AlertEngine(const Eid& host, const AlertLimits& limits, const AlertBounds& bounds = {});

    /// @brief Takes a signal.
    /// @param now must not be before that of any call so far
    /// @return what is to be told now, in order
    std::vector<Alert> take(AlertSignal signal, TimePoint now);

    /// @brief Finds what has become due. To be called at nextDeadline(), and harmless at any other time.
    /// @return what is to be told now, in order
    std::vector<Alert> advance(TimePoint now);

    /// @brief Changes the limits, for what has been told already too.
    /// @return what is to be told now, in order
    std::vector<Alert> setLimits(const AlertLimits& limits, TimePoint now);

    /// @return when there will be something to do; nothing when only a new signal can bring that about
    std::optional<TimePoint> nextDeadline() const;

    AlertStatus status() const { return status_; }

    /// @return what was taken and is still to be reported, one alert for each source that has some; for a restart
    std::vector<Alert> outstanding(TimePoint now) const;

    /// @brief Takes over what a former engine had outstanding: it is reported in its turn.
    /// @return what is to be reported now, in order
    std::vector<Alert> restore(const std::vector<Alert>& alerts, TimePoint now);

    /// @return whether something about the environment is still to be reported
    bool isOutstanding(const Eid& about) const;

    /// @return alerts remembered, as AlertBounds counts them
    std::size_t entries() const { return recent_.size() + queue_.size(); }

private:
    using Source = AlertKey;
    struct Identity {
        Source source;
        std::int32_t code;
        std::string text;
        auto operator<=>(const Identity&) const = default;  // NOLINT(modernize-use-nullptr): code the compiler makes
    };
    /// Told not longer ago than the limit.
    struct Told {
        TimePoint toldAt;
        std::uint64_t counted = 0;  ///< signals since
        std::int64_t value = 0;     ///< of the latest signal
        TimePoint happened;         ///< when that came
    };
    using Recent = std::map<Identity, Told>;
    struct Waiting {
        AlertSignal signal;
        TimePoint happened;
        std::uint64_t more = 0;
    };
    using Queue = std::list<Waiting>;
    /// What is remembered of one source of one environment.
    struct State {
        std::optional<Queue::iterator> waiting;
        std::optional<Recent::iterator> latest;  ///< the told alert that its last signal was equal to
        std::size_t told = 0;                    ///< entries of recent_
    };
    using States = std::map<Source, State>;

    static Source sourceOf(const AlertSignal& signal) { return signal.key(); }
    static Identity identityOf(const AlertSignal& signal) { return {sourceOf(signal), signal.code, signal.text}; }
    static std::size_t bytesOf(const AlertSignal& signal) { return signal.text.size() + signal.source.size(); }
    static std::size_t bytesOf(const Identity& one) { return one.text.size() + one.source.source.size(); }

    void receive(AlertSignal signal, TimePoint now);
    void replaceWaiting(Waiting& waiting, AlertSignal signal, TimePoint now);
    bool fits(std::size_t entries, std::size_t textBytes) const;
    bool isOverflow(const AlertSignal& signal) const;
    void overflow(TimePoint now);
    void count(Recent::iterator told, std::uint64_t signals, std::int64_t value, TimePoint happened);
    void enqueue(Waiting waiting);
    void dequeue();
    void settle(TimePoint now);
    void expireFirst(TimePoint now);
    std::optional<Recent::iterator> successorOf(Recent::const_iterator told) const;
    Alert countedAlert(Recent::const_iterator told, TimePoint now) const;
    void tellAgain(AlertSignal signal, TimePoint happened, std::uint64_t counted);
    void forget(Recent::iterator told);
    void forgetIfIdle(States::iterator state);
    void pump(TimePoint now);
    void deliver(TimePoint now);

    const Eid host_;
    AlertLimits limits_;
    const AlertBounds bounds_;
    TokenBucket bucket_;
    States states_;
    Recent recent_;
    std::deque<Recent::iterator> inOrderTold_;  ///< all of recent_, the longest ago first
    Queue queue_;                               ///< in the order in which they began to wait
    std::size_t textBytes_ = 0;                 ///< of recent_ and queue_
    std::int64_t overflown_ = 0;                ///< signals only counted since the last overflow began
    AlertStatus status_;
    std::vector<Alert> out_;
};

}  // namespace kx::agent
