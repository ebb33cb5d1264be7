// What a monitor asks the agent for when it is read.
#include <future>
#include <mutex>

#include "link/SNMPNodeLocal.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/perf/MonitorAccess.h"
#include "tests/unit/perf/PerfFixture.h"

namespace kx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Subscriptions = PerfFixture;

const Readings kOfWeb = {{101, {{"1", {{"bytes_in", 5}}}}}};

TEST_F(Subscriptions, BeginWithTheFirstReadOfAClassWhichAnAnswerOfItsOwnFills) {
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), kOfWeb);
    EXPECT_THAT(startsOf(kNet), SizeIs(1));
    EXPECT_THAT(queriesOf(kNet), SizeIs(1));
}

TEST_F(Subscriptions, AreForThirtySecondsAndAllContainers) {
    read();
    ASSERT_THAT(startsOf(kNet), SizeIs(1));
    const wire::MonitorStart start = startsOf(kNet)[0];
    EXPECT_THAT(start.classes(), ElementsAre(kNet));
    EXPECT_THAT(start.eids(), IsEmpty());
    EXPECT_EQ(start.period_seconds(), 30U);
    ASSERT_THAT(queriesOf(kNet), SizeIs(1));
    const wire::CounterQuery query = queriesOf(kNet)[0];
    EXPECT_THAT(query.classes(), ElementsAre(kNet));
    EXPECT_THAT(query.eids(), IsEmpty());
}

TEST_F(Subscriptions, BeginOnceAndASecondReadAsksForNothing) {
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), kOfWeb);
    EXPECT_EQ(read(), kOfWeb);
    EXPECT_TRUE(settle());
    EXPECT_THAT(startsOf(kNet), SizeIs(1));
    EXPECT_THAT(queriesOf(kNet), SizeIs(1));
}

TEST_F(Subscriptions, BeginOnceButEveryReadQueriesWhileThereIsNothing) {
    EXPECT_EQ(read(), Readings());
    EXPECT_EQ(read(), Readings());
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), kOfWeb);
    EXPECT_THAT(startsOf(kNet), SizeIs(1));
    EXPECT_THAT(queriesOf(kNet), SizeIs(3));
}

TEST_F(Subscriptions, OfTwoClassesReadOneAfterTheOtherAreTwo) {
    read(kQuota);
    read(kNet);
    const auto starts = agent().starts();
    ASSERT_THAT(starts, SizeIs(2));
    EXPECT_THAT(starts[0].monitor_start().classes(), ElementsAre(kQuota));
    EXPECT_THAT(starts[1].monitor_start().classes(), ElementsAre(kNet));
    EXPECT_NE(starts[0].request_id(), starts[1].request_id());
    EXPECT_THAT(queriesOf(kQuota), SizeIs(1));
    EXPECT_THAT(queriesOf(kNet), SizeIs(1));
}

TEST_F(Subscriptions, AreMadeForAnyClassAlsoOneThatTheVocabularyLacks) {
    const LogCapture log;
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "x", {1})}, "of nobody")});
    EXPECT_EQ(read("of nobody"), (Readings{{101, {{"x", {{"bytes_in", 1}}}}}}));
    EXPECT_THAT(startsOf("of nobody"), SizeIs(1));
    EXPECT_THAT(log.lines(), ElementsAre(LogCapture::Line(3, "init: _vocabulary->readCategory failed\n")));
}

TEST_F(Subscriptions, AreMadeWithoutAnyVocabulary) {
    wire::Frame none;
    none.mutable_vocabulary_set();
    agent().setVocabulary(none);
    ASSERT_TRUE(settle());
    const LogCapture log;
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), kOfWeb);
    EXPECT_THAT(startsOf(kNet), SizeIs(1));
    EXPECT_THAT(log.lines(), IsEmpty());
}

// ---- failures ---------------------------------------------------------------------------------------------------

TEST_F(Subscriptions, ThatTheAgentRefusesLeaveTheClassToQueries) {
    agent().answerStarts([](const wire::Frame& request) { return std::vector{refusalFrame(request)}; });
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), kOfWeb);
    EXPECT_TRUE(settle());
    EXPECT_EQ(read(), kOfWeb);
    EXPECT_THAT(startsOf(kNet), SizeIs(1));
}

TEST_F(Subscriptions, LeaveAReadEmptyWhoseQueryIsRefusedAndTheNextOneAsksAgain) {
    agent().answerQueries([](const wire::Frame& request) { return std::vector{refusalFrame(request)}; });
    EXPECT_EQ(read(), Readings());
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), kOfWeb);
    EXPECT_THAT(startsOf(kNet), SizeIs(1));
    EXPECT_THAT(queriesOf(kNet), SizeIs(2));
}

TEST_F(Subscriptions, LeaveAReadEmptyWhoseQueryIsAnsweredWithNonsense) {
    auto nonsense = bytesOf({rowOf(kWeb, "1", {5})});
    nonsense.add_instances("2");
    agent().answerQueriesWith({nonsense});
    EXPECT_EQ(read(), Readings());
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), kOfWeb);
}

// A class of its own: the link's monitor, too, subscribes anew once the agent is back.
TEST_F(Subscriptions, ThatCannotBeStartedLeaveTheFirstReadEmptyAndTheOthersToQueries) {
    const LogCapture unwanted;
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {5})}, "a")});
    agent().setAway(true);
    const int before = agent().connections();
    agent().hangUp();
    ASSERT_TRUE(eventually([&] { return agent().connections() > before; }));
    EXPECT_EQ(read("a"), Readings());
    agent().setAway(false);
    ASSERT_TRUE(settle());
    EXPECT_THAT(queriesOf("a"), IsEmpty());
    EXPECT_EQ(read("a"), kOfWeb);
    EXPECT_TRUE(settle());
    EXPECT_THAT(queriesOf("a"), SizeIs(1));
    EXPECT_THAT(startsOf("a"), IsEmpty()) << "the class is taken for monitored until the next restart";
}

// ---- what a read gives --------------------------------------------------------------------------------------------

TEST_F(Subscriptions, GiveReadersCopiesThatLaterReportsDoNotReach) {
    read();
    report({bytesOf({rowOf(kWeb, "1", {5})})});
    const ClassStats before = monitor.getStats(kNet);
    report({bytesOf({rowOf(kStore, "1", {7})})});
    EXPECT_EQ(readingsOf(before), kOfWeb);
    EXPECT_EQ(read(), (Readings{{102, {{"1", {{"bytes_in", 7}}}}}}));
}

// Were the cache locked meanwhile, the report would keep the loop from the answer that stands behind it.
TEST_F(Subscriptions, DoNotLockTheCacheWhileAQueryIsUnderWay) {
    agent().answerQueries([](const wire::Frame& request) {
        return std::vector{reportFrame(agent().monitor(), {bytesOf({rowOf(kWeb, "1", {5})})}),
                           answerFrame(request, {bytesOf({rowOf(kWeb, "1", {2})})})};
    });
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"bytes_in", 7}}}}}}));
}

// The lock is somebody else's from before the answer until the read is through: whoever wanted it for storing the
// answer would wait for it in vain.
TEST_F(Subscriptions, DoNotLockTheCacheToStoreAQuerysAnswerEither) {
    std::promise<void> taken;
    std::promise<void> release;
    std::thread holder;
    agent().answerQueries([&](const wire::Frame& request) {
        holder = std::thread([&] {
            const std::lock_guard guard(lockOf(monitor));
            taken.set_value();
            release.get_future().wait();
        });
        taken.get_future().wait();
        return std::vector{answerFrame(request, {bytesOf({rowOf(kWeb, "1", {5})})})};
    });
    auto result = std::async(std::launch::async, [this] { return read(); });
    EXPECT_EQ(result.wait_for(kPatience), std::future_status::ready);
    release.set_value();
    EXPECT_EQ(result.get(), kOfWeb);
    ASSERT_TRUE(holder.joinable());
    holder.join();
}

// The one path that writes the cache without its lock; here nothing else is under way.
TEST_F(Subscriptions, FoldAQuerysAnswerIntoTheCacheAsTheyDoAReport) {
    read(kNet);
    report({bytesOf({rowOf(kWeb, "1", {5}), rowOf(kStore, "1", {6})})});
    agent().answerQueriesWith({groupOf(kQuota, {"q1"}, {rowOf(kStore, "", {9})})});
    EXPECT_EQ(read(kQuota), (Readings{{102, {{"", {{"q1", 9}}}}}}));
    EXPECT_EQ(read(kNet), (Readings{{102, {{"1", {{"bytes_in", 6}}}}}})) << "who is not in the answer is gone";
}

TEST_F(Subscriptions, AddAnAnswersIncreasesToThoseOfTheReportsThatFollow) {
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), kOfWeb);
    report({bytesOf({rowOf(kWeb, "1", {3})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"bytes_in", 8}}}}}}));
}

TEST_F(Subscriptions, KeepTheTypeOfACounterThatAnAnswerHadBeforeAnyVocabulary) {
    agent().answerQueriesWith({groupOf(kNet, {"q1"}, {rowOf(kWeb, "1", {5})})});
    read(kNet);
    agent().setVocabulary(vocabularyOf({{kQuota, {{"q1", 2}}}}));
    ASSERT_TRUE(settle());
    read(kQuota);
    for (int i = 0; i < 2; ++i) {
        report({groupOf(kQuota, {"q1"}, {rowOf(kWeb, "", {7})})});
    }
    EXPECT_EQ(read(kQuota), (Readings{{101, {{"", {{"q1", 7}}}}}})) << "replaced, not added up";
}

TEST_F(Subscriptions, OfAnAnswerWithoutTheClassThatWasAskedForGiveNothingOfIt) {
    agent().answerQueriesWith({groupOf(kQuota, {"q1"}, {rowOf(kWeb, "", {9})})});
    EXPECT_EQ(read(kNet), Readings());
    EXPECT_EQ(read(kQuota), (Readings{{101, {{"", {{"q1", 9}}}}}}));
    EXPECT_THAT(startsOf(kQuota), IsEmpty()) << "the answer made the class known";
}

}  // namespace
}  // namespace kx::test
