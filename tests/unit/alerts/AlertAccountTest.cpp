// Whatever comes in whatever order: nothing is lost, nothing is told too often, and what is told last is true.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "tests/unit/alerts/Alerts.h"

namespace kx::agent {
namespace {

using test::eidOf;
using test::EngineWithClock;
using test::milliseconds;
using test::TimePoint;

/// A client that keeps account of what went in and of what it was told.
class Account {
public:
    Account(const AlertLimits& limits, const AlertBounds& bounds) : limits_(limits), clock_(limits, bounds) {}

    void take(const AlertSignal& signal) {
        ++signals_;
        latest_[{signal.about, signal.source}] = signal;
        values_[keyOf(signal)].insert(signal.value);
        clock_.take(signal);
        check();
    }

    void pass(milliseconds time) {
        // Told at the moments at which the engine wants to be called, so that their times are known here.
        const TimePoint end = clock_.now() + time;
        while (true) {
            const auto next = clock_.engine().nextDeadline();
            if (!next || *next > end) {
                break;
            }
            clock_.pass(std::max(*next - clock_.now(), std::chrono::nanoseconds(0)));
            check();
        }
        clock_.pass(end - clock_.now());
        check();
    }

    /// @brief Moves the clock so that the engine is called too late.
    void oversleep(milliseconds time) {
        clock_.jump(time);
        clock_.advance();
        check();
    }

    void drain() {
        while (clock_.engine().nextDeadline()) {
            clock_.pass(std::max(*clock_.engine().nextDeadline() - clock_.now(), std::chrono::nanoseconds(0)));
            check();
        }
    }

    void expectThatNothingIsLost() const {
        const AlertStatus status = clock_.engine().status();
        EXPECT_EQ(told_, signals_ + status.ownSignals);
        EXPECT_LE(endsOfOverflow_, status.ownSignals);
        EXPECT_EQ(status.counted, 0U);
        EXPECT_EQ(status.waitingSignals, 0U);
        EXPECT_EQ(clock_.engine().entries(), 0U);
    }

    /// Whoever believes what was told last of each source believes what is the case.
    void expectThatTheLastToldIsTrue() const {
        for (const auto& [source, signal] : latest_) {
            EXPECT_EQ(believed_.at(source), signal.code);
        }
    }

    std::size_t deliveries() const { return times_.size(); }

private:
    using Source = std::pair<Eid, std::string>;
    using Key = std::tuple<Eid, std::string, std::int32_t, std::string>;

    static Key keyOf(const AlertSignal& signal) { return {signal.about, signal.source, signal.code, signal.text}; }

    void check() {
        for (const Alert& alert : clock_.told()) {
            judge(alert);
        }
        const AlertStatus status = clock_.engine().status();
        EXPECT_EQ(status.signals, signals_);
        EXPECT_EQ(status.signals + status.ownSignals, told_ + status.counted + status.waitingSignals);
        EXPECT_EQ(status.told, told_);
        EXPECT_EQ(status.deliveries, times_.size());
    }

    void judge(const Alert& alert) {
        const AlertSignal& plain = alert.signal;
        told_ += 1 + alert.more;
        believed_[{plain.about, plain.source}] = plain.code;
        if (plain.source == AlertEngine::kOverflowSource) {
            endsOfOverflow_ += plain.code == kAlertClear ? 1 : 0;
        } else {
            EXPECT_TRUE(values_[keyOf(plain)].contains(plain.value)) << "a value that this alert never had";
        }
        const auto [before, first] = toldAt_.try_emplace(keyOf(plain), clock_.now());
        if (!first) {
            EXPECT_GE(clock_.now() - before->second, limits_.repeat) << plain.text << " is told too often";
            before->second = clock_.now();
        }
        judgeRate();
    }

    /// In no stretch of time more than the burst and what the rate brings in it.
    void judgeRate() {
        times_.push_back(clock_.now());
        const std::size_t reach = std::min<std::size_t>(times_.size(), std::size_t{4} * limits_.burst);
        for (std::size_t count = 1; count <= reach; ++count) {
            const std::chrono::duration<double> stretch = times_.back() - times_[times_.size() - count];
            ASSERT_LE(static_cast<double>(count), limits_.burst + limits_.perSecond * stretch.count() + 1e-6);
        }
    }

    AlertLimits limits_;
    EngineWithClock clock_;
    std::uint64_t signals_ = 0;
    std::uint64_t told_ = 0;
    std::uint64_t endsOfOverflow_ = 0;
    std::map<Source, AlertSignal> latest_;
    std::map<Source, std::int32_t> believed_;
    std::map<Key, std::set<std::int64_t>> values_;
    std::map<Key, TimePoint> toldAt_;
    std::vector<TimePoint> times_;
};

/// Makes things up, differently for each seed.
class Chance {
public:
    explicit Chance(unsigned seed) : engine_(seed) {}

    int below(int end) { return std::uniform_int_distribution<int>(0, end - 1)(engine_); }

    AlertLimits limits() {
        constexpr double rates[] = {0.2, 1, 5, 1000};
        return {milliseconds(below(5) * below(10'000)), rates[below(4)], static_cast<std::uint32_t>(1 + below(30))};
    }

    AlertSignal signal(int containers) {
        return {eidOf(fmt::format("ct{}", below(containers))), fmt::format("source {}", below(2)), below(3),
                std::string(static_cast<std::size_t>(below(3)), 'x'), below(1000)};
    }

    milliseconds pause() {
        constexpr int longest[] = {1, 1, 10, 300, 3000};
        return milliseconds(below(longest[below(5)]));
    }

private:
    std::mt19937 engine_;
};

constexpr unsigned kRuns = 300;
constexpr int kSteps = 400;

TEST(AlertAccount, AddsUpWhateverComes) {
    std::size_t deliveries = 0;
    for (unsigned seed = 0; seed < kRuns; ++seed) {
        SCOPED_TRACE(seed);
        Chance chance(seed);
        Account account(chance.limits(), {});
        const int containers = 1 + chance.below(40);
        for (int step = 0; step < kSteps; ++step) {
            account.take(chance.signal(containers));
            chance.below(10) == 0 ? account.oversleep(chance.pause()) : account.pass(chance.pause());
        }
        account.drain();
        account.expectThatNothingIsLost();
        account.expectThatTheLastToldIsTrue();
        deliveries += account.deliveries();
        if (testing::Test::HasFailure()) {
            return;
        }
    }
    EXPECT_GT(deliveries, std::size_t{kRuns} * 20) << "there was little to judge";
    EXPECT_LT(deliveries, std::size_t{kRuns} * kSteps * 2 / 3) << "too little was held back";
}

TEST(AlertAccount, AddsUpWhereThereIsNoRoomToTellAllApart) {
    for (unsigned seed = 0; seed < kRuns; ++seed) {
        SCOPED_TRACE(seed);
        Chance chance(seed);
        const AlertBounds bounds{static_cast<std::size_t>(1 + chance.below(10)),
                                 static_cast<std::size_t>(chance.below(100))};
        Account account(chance.limits(), bounds);
        const int containers = 1 + chance.below(40);
        for (int step = 0; step < kSteps; ++step) {
            account.take(chance.signal(containers));
            account.pass(chance.pause());
        }
        account.drain();
        account.expectThatNothingIsLost();
        if (testing::Test::HasFailure()) {
            return;
        }
    }
}

}  // namespace
}  // namespace kx::agent
