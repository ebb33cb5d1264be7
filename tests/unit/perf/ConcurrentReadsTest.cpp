// Tables that are read while reports arrive. Meant for the thread sanitizer; without it, it shows torn copies.
//
// A query's answer is stored without the cache's lock, which is the monitor's own choice: it relies on queries being
// made only until the first report. So no read here meets an empty cache, and no test lets the two meet.
#include <thread>

#include "tables/VeNetworkCountersTableData.h"
#include "tests/unit/perf/PerfFixture.h"

namespace kx::test {
namespace {

constexpr int kRounds = 400;

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
    for (int i = 0; i < kRounds / 4; ++i) {
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
