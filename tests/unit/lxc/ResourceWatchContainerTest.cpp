// One container over files of the test's own, with the test's clock.
#include "agent/backends/lxc/ResourceWatchContainer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "tests/support/TemporaryFolder.h"
#include "tests/unit/alerts/PrintAlert.h"

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using Look = WatchedContainer::Look;

/// Cgroups of either version, as files that the test writes.
class ContainerTest : public testing::TestWithParam<bool> {
protected:
    ContainerTest() {
        memory(10);
        hits(0);
        kills(0);
        pids(5);
        pidsHits(0);
        write("memory/" + std::string(v2() ? "memory.max" : "memory.limit_in_bytes"), "1000\n");
        write("pids/pids.max", "100\n");
    }

    static bool v2() { return GetParam(); }
    void write(const std::string& name, const std::string& text) { folder_.write(name, text); }

    /// @param used of a limit of 1000; the rest of it is file cache
    void memory(int used) {
        write("memory/" + std::string(v2() ? "memory.current" : "memory.usage_in_bytes"), "1000\n");
        write("memory/memory.stat", (v2() ? "inactive_file " : "total_inactive_file ") + std::to_string(1000 - used));
    }
    void hits(int number) {
        hits_ = number;
        v2() ? writeEvents() : write("memory/memory.failcnt", std::to_string(number) + "\n");
    }
    void kills(int number) {
        kills_ = number;
        v2() ? writeEvents() : write("memory/memory.oom_control", "oom_kill " + std::to_string(number) + "\n");
    }
    void writeEvents() {
        write("memory/memory.events", "max " + std::to_string(hits_) + "\noom_kill " + std::to_string(kills_) + "\n");
    }
    void pids(int number) { write("pids/pids.current", std::to_string(number) + "\n"); }
    void pidsHits(int number) { write("pids/pids.events", "max " + std::to_string(number) + "\n"); }

    void begin() { container_.begin({{folder_ / "memory", v2()}, {folder_ / "pids", v2()}}); }

    /// @return what a regular look after so many seconds tells
    std::vector<AlertSignal> after(int passed) {
        now_ += seconds(passed);
        return container_.look(Look::Regular, now_);
    }

    AlertSignal told(const char* source, std::int32_t code, std::uint64_t value) const {
        return resourceSignal(eid_, source, code, value);
    }

    test::TemporaryFolder folder_;
    int hits_ = 0;
    int kills_ = 0;
    const Eid eid_ = Eid::fromName("machine", "web");
    WatchedContainer container_{eid_, ResourceTimes()};
    WatchedContainer::TimePoint now_{std::chrono::hours(1)};
};

INSTANTIATE_TEST_SUITE_P(Versions, ContainerTest, testing::Bool(),
                         [](const auto& version) { return version.param ? "v2" : "v1"; });

TEST_P(ContainerTest, whatHasHappenedBeforeIsNoAlert) {
    hits(50);
    kills(3);
    pidsHits(7);
    memory(1000);
    begin();
    EXPECT_THAT(after(1), IsEmpty());
    EXPECT_FALSE(container_.isUnderWay());
}

// ---- killed processes ----

TEST_P(ContainerTest, everyKillIsToldWithTheirNumber) {
    kills(3);
    begin();
    kills(4);
    EXPECT_THAT(after(1), ElementsAre(told("memory.oom", kAlertCritical, 4)));
    EXPECT_THAT(after(1), IsEmpty());
    kills(6);
    EXPECT_THAT(container_.look(Look::Kills, now_), ElementsAre(told("memory.oom", kAlertCritical, 6)));
    EXPECT_TRUE(container_.isUnderWay());
}

TEST_P(ContainerTest, aShortageOfMemoryIsOverAfterAMinuteWithoutAKillIfThereIsMemoryAgain) {
    begin();
    kills(1);
    EXPECT_THAT(after(1), ElementsAre(told("memory.oom", kAlertCritical, 1)));
    EXPECT_THAT(after(59), IsEmpty());
    memory(950);
    EXPECT_THAT(after(1), IsEmpty()) << "nearly all of it is used";
    memory(949);
    EXPECT_THAT(after(1), ElementsAre(told("memory.oom", kAlertClear, 1)));
    EXPECT_FALSE(container_.isUnderWay());
}

TEST_P(ContainerTest, killsAreToldWhereThereIsNoLimitToo) {
    write("memory/" + std::string(v2() ? "memory.max" : "memory.limit_in_bytes"),
          v2() ? "max\n" : "9223372036854771712\n");
    begin();
    kills(1);
    EXPECT_THAT(after(1), ElementsAre(told("memory.oom", kAlertCritical, 1)));
    EXPECT_THAT(after(60), ElementsAre(told("memory.oom", kAlertClear, 1)));
}

TEST_P(ContainerTest, killsInCgroupsOfTheContainersOwnAreFoundWhenThereIsASign) {
    if (v2()) {
        GTEST_SKIP() << "counted by the kernel";
    }
    write("memory/service/memory.oom_control", "oom_kill 2\n");
    begin();
    write("memory/service/memory.oom_control", "oom_kill 3\n");
    EXPECT_THAT(after(1), IsEmpty());
    EXPECT_THAT(container_.look(Look::Kills, now_), ElementsAre(told("memory.oom", kAlertCritical, 3)));
}

TEST_P(ContainerTest, killsAreKnownOnceForTheHostsAccount) {
    kills(3);
    begin();
    EXPECT_EQ(container_.takeNewKills(), 3U);
    EXPECT_EQ(container_.takeNewKills(), 0U);
    kills(5);
    after(1);
    EXPECT_EQ(container_.takeNewKills(), 2U);
}

TEST_P(ContainerTest, killsThatTheCgroupDidNotLiveToTellAreTold) {
    begin();
    kills(1);
    after(1);
    EXPECT_THAT(container_.takeKills(2, now_), ElementsAre(told("memory.oom", kAlertCritical, 3)));
}

// ---- memory that is nearly used up ----

TEST_P(ContainerTest, aLimitThatTheFileCacheFillsIsHealthy) {
    begin();
    memory(940);
    for (int i = 1; i < 10; ++i) {
        hits(i * 100);
        EXPECT_THAT(after(1), IsEmpty());
    }
    EXPECT_FALSE(container_.isUnderWay());
}

TEST_P(ContainerTest, aLimitThatIsHitWithNothingLeftToDropIsToldWhenItStaysSo) {
    begin();
    memory(950);
    EXPECT_THAT(after(1), IsEmpty()) << "the limit was not hit";
    hits(1);
    EXPECT_THAT(after(1), IsEmpty());
    EXPECT_THAT(after(1), IsEmpty());
    EXPECT_THAT(after(2), ElementsAre(told("memory.limit", kAlertWarning, 1000)));
    EXPECT_THAT(after(1), IsEmpty());
    hits(2);
    EXPECT_THAT(after(1), ElementsAre(told("memory.limit", kAlertWarning, 1000))) << "it goes on";
}

TEST_P(ContainerTest, aPeakIsNotTold) {
    begin();
    memory(1000);
    hits(1);
    EXPECT_THAT(after(1), IsEmpty());
    memory(500);
    EXPECT_THAT(after(1), IsEmpty());
    memory(1000);
    EXPECT_THAT(after(10), IsEmpty());
}

TEST_P(ContainerTest, aWarningIsOverWhenMemoryHasBeenFreeForTenSeconds) {
    begin();
    memory(1000);
    hits(1);
    after(1);
    ASSERT_THAT(after(3), ElementsAre(told("memory.limit", kAlertWarning, 1000)));
    memory(850);
    EXPECT_THAT(after(100), IsEmpty());
    memory(849);
    EXPECT_THAT(after(1), IsEmpty());
    EXPECT_THAT(after(9), IsEmpty());
    EXPECT_THAT(after(1), ElementsAre(told("memory.limit", kAlertClear, 1000)));
    EXPECT_FALSE(container_.isUnderWay());
}

// ---- processes ----

TEST_P(ContainerTest, everyLookThatFindsTheLimitOfProcessesHitTellsIt) {
    begin();
    pids(100);
    pidsHits(1);
    EXPECT_THAT(after(1), ElementsAre(told("pids.limit", kAlertCritical, 100)));
    EXPECT_THAT(after(1), IsEmpty());
    pidsHits(30);
    EXPECT_THAT(after(1), ElementsAre(told("pids.limit", kAlertCritical, 100)));
}

TEST_P(ContainerTest, theLimitOfProcessesIsOverBelowNineTenthsTenSecondsAfterTheLastHit) {
    begin();
    pids(100);
    pidsHits(1);
    after(1);
    EXPECT_THAT(after(20), IsEmpty()) << "still full";
    pids(90);
    EXPECT_THAT(after(1), IsEmpty());
    pidsHits(2);
    pids(5);
    EXPECT_THAT(after(1), ElementsAre(told("pids.limit", kAlertCritical, 5)));
    EXPECT_THAT(after(9), IsEmpty());
    EXPECT_THAT(after(1), ElementsAre(told("pids.limit", kAlertClear, 5)));
    EXPECT_FALSE(container_.isUnderWay());
}

TEST_P(ContainerTest, hitsThatACgroupOfTheContainersOwnCountsAreFound) {
    write("pids/service/pids.events", "max 9\n");
    begin();
    pids(100);
    EXPECT_THAT(after(1), IsEmpty()) << "they may be old";
    write("pids/service/pids.events", "max 11\n");
    EXPECT_THAT(after(1), ElementsAre(told("pids.limit", kAlertCritical, 100)));
}

TEST_P(ContainerTest, aLimitThatIsTakenAwayIsOver) {
    begin();
    pids(100);
    pidsHits(1);
    after(1);
    write("pids/pids.max", "max\n");
    EXPECT_THAT(after(10), ElementsAre(told("pids.limit", kAlertClear, 100)));
}

TEST_P(ContainerTest, aLimitThatIsSetLaterIsNoticed) {
    write("pids/pids.max", "max\n");
    write("pids/service/pids.events", "max 0\n");
    begin();
    pids(100);
    EXPECT_THAT(after(1), IsEmpty());
    write("pids/pids.max", "100\n");
    for (int i = 0; i < 10; ++i) {
        EXPECT_THAT(after(1), IsEmpty());
    }
    write("pids/service/pids.events", "max 1\n");
    EXPECT_THAT(after(1), ElementsAre(told("pids.limit", kAlertCritical, 100)));
}

TEST_P(ContainerTest, killsThatAreToldOfAreNotLookedForWithoutASign) {
    begin();
    container_.setKillsAreTold();
    kills(1);
    EXPECT_THAT(after(1), IsEmpty());
    EXPECT_THAT(container_.look(Look::Kills, now_), ElementsAre(told("memory.oom", kAlertCritical, 1)));
    kills(2);
    EXPECT_THAT(after(1), ElementsAre(told("memory.oom", kAlertCritical, 2))) << "while it is raised they are";
}

// ---- the container's end ----

TEST_P(ContainerTest, cgroupsThatHaveGoneAreNoAlert) {
    begin();
    std::filesystem::remove_all(folder_ / "memory");
    std::filesystem::remove_all(folder_ / "pids");
    EXPECT_THAT(container_.look(Look::Kills, now_), IsEmpty());
    EXPECT_THAT(after(1), IsEmpty());
    EXPECT_FALSE(container_.tellsOfKills());
}

TEST_P(ContainerTest, whatIsRaisedIsClearedInItsTimeAfterTheEnd) {
    begin();
    memory(1000);
    hits(1);
    after(1);
    kills(1);
    pids(100);
    pidsHits(1);
    ASSERT_THAT(after(3), testing::SizeIs(3));
    container_.end();
    EXPECT_THAT(after(1), IsEmpty());
    EXPECT_THAT(after(9), ElementsAre(told("pids.limit", kAlertClear, 0)));
    EXPECT_THAT(after(1), ElementsAre(told("memory.limit", kAlertClear, 0)));
    EXPECT_THAT(after(49), ElementsAre(told("memory.oom", kAlertClear, 0)));
    EXPECT_FALSE(container_.isUnderWay());
}

TEST_P(ContainerTest, whatWasRaisedInOneRunStaysRaisedInTheNext) {
    begin();
    kills(1);
    after(1);
    container_.end();
    kills(0);
    begin();
    EXPECT_THAT(after(30), IsEmpty());
    kills(1);
    EXPECT_THAT(after(1), ElementsAre(told("memory.oom", kAlertCritical, 1)));
    EXPECT_THAT(after(59), IsEmpty());
    EXPECT_THAT(after(1), ElementsAre(told("memory.oom", kAlertClear, 1)));
}

TEST_P(ContainerTest, aNewRunBeginsItsCountsAnew) {
    kills(5);
    hits(5);
    pidsHits(5);
    begin();
    kills(2);
    hits(2);
    pidsHits(2);
    begin();
    EXPECT_THAT(after(1), IsEmpty());
    kills(3);
    EXPECT_THAT(after(1), ElementsAre(told("memory.oom", kAlertCritical, 3)));
}

TEST_P(ContainerTest, whatWasKnownOfOneRunDoesNotHoldForTheNext) {
    write("pids/pids.max", "max\n");
    begin();
    container_.setKillsAreTold();
    after(1);
    container_.end();
    write("pids/pids.max", "100\n");
    write("pids/service/pids.events", "max 9\n");
    begin();
    pids(100);
    kills(1);
    EXPECT_THAT(after(1), ElementsAre(told("memory.oom", kAlertCritical, 1)));
    write("pids/service/pids.events", "max 10\n");
    EXPECT_THAT(after(1), ElementsAre(told("pids.limit", kAlertCritical, 100)));
    begin();
    write("pids/service/pids.events", "max 3\n");
    EXPECT_THAT(after(1), IsEmpty()) << "another one of the same name";
}

// ---- texts ----

TEST(ResourceSignal, HasNoNumbersInItsTexts) {
    const Eid eid;
    for (const char* source : {kMemoryOomSource, kMemoryLimitSource, kPidsLimitSource, kHostOomSource}) {
        const AlertSignal raised = resourceSignal(eid, source, kAlertCritical, 7);
        const AlertSignal cleared = resourceSignal(eid, source, kAlertClear, 7);
        EXPECT_FALSE(raised.text.empty());
        EXPECT_FALSE(cleared.text.empty());
        EXPECT_NE(raised.text, cleared.text);
        EXPECT_EQ((raised.text + cleared.text).find_first_of("0123456789"), std::string::npos);
        EXPECT_EQ(raised.source, source);
    }
}

TEST(ResourceSignal, AValueTooLargeIsTheLargest) {
    EXPECT_EQ(resourceSignal(Eid(), kMemoryOomSource, kAlertCritical, std::numeric_limits<std::uint64_t>::max()).value,
              std::numeric_limits<std::int64_t>::max());
}

}  // namespace
}  // namespace kx::agent::lxc
