// Tables that are read while reports arrive. Meant for the thread sanitizer; without it, it shows torn copies.
//
// Most of them read a cache that reports have filled; Queries are the reads of a class of which nothing is known yet.
#include <algorithm>
#include <atomic>
#include <thread>

#include "tables/VeNetworkCountersTableData.h"
#include "tests/unit/perf/PerfFixture.h"

namespace kx::test {
namespace {

constexpr int kRounds = 400;
constexpr std::size_t kQueries = 50;

class ConcurrentReads : public PerfFixture {
protected:
    ConcurrentReads() {
        read(kNet);
        read(kQuota);
        subscription_ = agent().monitor();
        reportRound(0);
        EXPECT_TRUE(settle());
        agent().reset();
    }

    /// Both containers in both classes; the second container has another instance in each round.
    void reportRound(int round) {
        const std::vector<std::string> names = {"q1", "q2"};
        agent().send(
            reportFrame(subscription_,
                        {groupOf(kQuota, names, {rowOf(kWeb, "", {round, round}), rowOf(kStore, "", {round, round})}),
                         groupOf(kNet, {"bytes_in", "packets_in"},
                                 {rowOf(kWeb, "1", {1, 1}), rowOf(kStore, std::to_string(round), {1, 1})})}));
    }

    std::uint64_t subscription_ = 0;
};

/// Whether what one report said is there as a whole.
void expectWhole(const ClassStats& stats, const std::string& first, const std::string& second) {
    ASSERT_EQ(stats.size(), 2U);
    for (const auto& [veid, instances] : stats) {
        ASSERT_EQ(instances.size(), 1U);
        const CounterMap& counters = instances.begin()->second;
        ASSERT_EQ(counters.size(), 2U);
        EXPECT_EQ(counters.at(first).value1.integer, counters.at(second).value1.integer);
        EXPECT_EQ(counters.at(first).value3.integer, counters.at(second).value3.integer);
    }
}

TEST_F(ConcurrentReads, OfATableGiveOneReportOrTheOtherWhileReportsArrive) {
    std::thread reporter([this] {
        for (int round = 1; round <= kRounds; ++round) {
            reportRound(round);
        }
    });
    std::int64_t seen = 0;
    const bool sawTheLast = eventually([&] {
        const ClassStats quota = monitor.getStats(kQuota);
        expectWhole(quota, "q1", "q2");
        expectWhole(monitor.getStats(kNet), "bytes_in", "packets_in");
        const std::int64_t now = quota.empty() ? -1 : quota.begin()->second.begin()->second.at("q1").value1.integer;
        EXPECT_GE(now, seen);
        seen = now;
        return now == kRounds || HasFailure();
    });
    reporter.join();
    EXPECT_TRUE(sawTheLast);
    EXPECT_TRUE(settle());
    EXPECT_EQ(read(kNet).at(101).at("1").at("bytes_in"), kRounds + 1) << "no increase was lost";
    EXPECT_TRUE(agent().queries().empty());
}

/// Reports take everything away and give it back, so that reads find nothing again and again and ask the agent, whose
/// answer is stored without the lock.
TEST_F(ConcurrentReads, ThatQueryTheAgentMeetReportsOfTheSameClass) {
    const auto quota = groupOf(kQuota, {"q1", "q2"}, {rowOf(kWeb, "", {1, 1}), rowOf(kStore, "", {1, 1})});
    agent().answerQueriesWith({quota});
    std::atomic<bool> done{false};
    std::thread reporter([&] {
        while (!done) {
            agent().send(reportFrame(subscription_, {}));
            agent().send(reportFrame(subscription_, {quota}));
        }
    });
    EXPECT_TRUE(eventually([&] {
        const ClassStats stats = monitor.getStats(kQuota);
        if (!stats.empty()) {
            expectWhole(stats, "q1", "q2");
        }
        return HasFailure() || agent().queries().size() >= kQueries;
    }));
    done = true;
    reporter.join();
    EXPECT_TRUE(settle());
    EXPECT_THAT(monitor.getStats(kQuota), testing::SizeIs(2));
}

/// As many containers as a large host has, with as many counters, in reports of as many frames as these take.
class LargeReports : public PerfFixture {
protected:
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    static constexpr int kContainers = 1000;
#else
    static constexpr int kContainers = 10000;
#endif
    static constexpr int kFrames = 10;
    static constexpr int kReports = 4;
    static constexpr int kCounters = 12;
    static inline const std::string kClass = "large";

    LargeReports() {
        for (int i = 1; i <= kCounters; ++i) {
            names_.push_back("c" + std::to_string(i));
        }
        std::vector<CounterName> described;
        for (const std::string& name : names_) {
            described.push_back({name, 1});
        }
        CounterClasses classes = usualClasses();
        classes.emplace_back(kClass, described);
        agent().setVocabulary(vocabularyOf(classes));
        for (int i = 0; i < kContainers; ++i) {
            containers_.push_back(renumbered(wireEnv(1000 + i), 1000 + i));
        }
        agent().change(containers_);
        EXPECT_TRUE(settle());
        read(kClass);
    }
    /// The next link has the usual containers again.
    ~LargeReports() override {
        agent().hangUp();
        EXPECT_TRUE(settle());
    }

    /// All counters of all containers are `value`.
    std::vector<wire::Frame> reportOf(std::int64_t value) {
        std::vector<wire::Frame> frames;
        constexpr int part = kContainers / kFrames;
        for (int frame = 0; frame < kFrames; ++frame) {
            std::vector<CounterRow> rows;
            for (int i = frame * part; i < (frame + 1) * part; ++i) {
                rows.push_back(
                    rowOf(containers_[static_cast<std::size_t>(i)], "1", std::vector<std::int64_t>(kCounters, value)));
            }
            frames.push_back(reportFrame(agent().monitor(), {groupOf(kClass, names_, rows)}));
            frames.back().mutable_counter_sample()->set_continued(frame + 1 < kFrames);
        }
        return frames;
    }

    std::vector<std::string> names_;
    std::vector<wire::Environment> containers_;
};

/// @return what all counters of all containers are; -1 when they are not the same, or some are missing
std::int64_t valueOfAll(const ClassStats& stats, std::size_t containers, std::size_t counters) {
    if (stats.size() != containers) {
        return -1;
    }
    const std::int64_t value = stats.begin()->second.begin()->second.begin()->second.value1.integer;
    for (const auto& [veid, instances] : stats) {
        const CounterMap& read = instances.begin()->second;
        const bool isWhole =
            instances.size() == 1 && read.size() == counters &&
            std::all_of(read.begin(), read.end(), [&](const auto& entry) {
                return entry.second.value1.integer == value && entry.second.value3.integer == 3 * value;
            });
        if (!isWhole) {
            return -1;
        }
    }
    return value;
}

TEST_F(LargeReports, AreReadAsAWholeOrNotAtAll) {
    std::vector<std::vector<wire::Frame>> reports;
    for (int value = 1; value <= kReports; ++value) {
        reports.push_back(reportOf(value));
    }
    std::atomic<bool> begun{false};
    // The first read is of the first report: an empty cache is filled by a query, whose answer is stored without the
    // lock.
    std::thread reporter([&] {
        eventually([&] { return begun.load(); });
        for (auto report = reports.begin() + 1; report != reports.end(); ++report) {
            for (const wire::Frame& frame : *report) {
                agent().send(frame);
            }
        }
    });
    for (const wire::Frame& frame : reports[0]) {
        agent().send(frame);
    }
    EXPECT_TRUE(settle());
    begun = true;
    std::int64_t seen = 1;
    const bool sawTheLast = eventually([&] {
        const std::int64_t now = valueOfAll(monitor.getStats(kClass), kContainers, kCounters);
        EXPECT_GE(now, seen) << "half a report, or an old one";
        seen = now;
        return now == kReports || HasFailure();
    });
    reporter.join();
    EXPECT_TRUE(sawTheLast);
    EXPECT_TRUE(settle());
}

// Rows, and the names of their columns, which are fetched from the vocabulary of the moment.
TEST_F(ConcurrentReads, OfRowsGoOnWhileReportsAndVocabulariesArrive) {
    std::thread reporter([this] {
        for (int round = 1; round <= kRounds; ++round) {
            reportRound(round);
            agent().setVocabulary(vocabularyOf(usualClasses()));
        }
    });
    const bool sawTheLast = eventually([&] {
        std::int64_t total = 0;
        for (VeNetworkCountersTableData row : CountersSnapshot<VeNetworkCountersTableData>(monitor.getStats(kNet))) {
            EXPECT_EQ(row[2].getLow(), row[3].getLow());
            total = std::max<std::int64_t>(total, row[2].getLow());
        }
        return total == 3 * (kRounds + 1) || HasFailure();
    });
    reporter.join();
    EXPECT_TRUE(sawTheLast);
    EXPECT_TRUE(settle());
}

// The restart takes the same lock; reports of the old subscriptions go on meanwhile. Nothing is read: a cache that is
// empty for a moment would be filled by a query.
TEST_F(ConcurrentReads, AreNotNeededForRestartsAndReportsToGetOnTogether) {
    std::thread reporter([this] {
        for (int round = 1; round <= kRounds; ++round) {
            reportRound(round);
        }
    });
    // Fewer than the requests that may wait for their answer: more would end the link.
    for (int i = 0; i < kRounds / 8; ++i) {
        EXPECT_GE(monitor.restart(accessPoint()), -1);
    }
    reporter.join();
    EXPECT_TRUE(settle());
    reportRound(kRounds);
    EXPECT_TRUE(settle());
    EXPECT_EQ(read(kQuota).at(102).at("").at("q1"), kRounds);
}

}  // namespace
}  // namespace kx::test
