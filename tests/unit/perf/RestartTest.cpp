// Monitors that are restarted: their subscriptions, and what becomes of what they knew.
#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLEventLoopPrototype.h>

#include "link/SNMPNodeLocal.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/perf/PerfFixture.h"

namespace kx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class Restart : public PerfFixture {
protected:
    /// Reads classes for the first time, and forgets what the agent was asked for that.
    void readFirst(const std::vector<std::string>& classes) {
        for (const std::string& name : classes) {
            read(name);
        }
        EXPECT_TRUE(settle());
        agent().reset();
    }
};

/// One that is not connected to any agent.
boost::intrusive_ptr<KXLAccessPointPrototype> unconnected() {
    const boost::intrusive_ptr<KXLEventLoopPrototype> loop(new KXLEventLoopPrototype);
    return KXLAccessPointPrototype::createInstance(KXLAccessAgentPrototype::createInstance(nullptr, loop, nullptr),
                                                   nullptr);
}

TEST_F(Restart, MakesOneSubscriptionForAllClassesInTheOrderOfTheirNames) {
    readFirst({kQuota, kNet});
    EXPECT_EQ(monitor.restart(accessPoint()), 0);
    EXPECT_TRUE(settle());
    ASSERT_THAT(agent().starts(), SizeIs(1));
    EXPECT_THAT(startsOf(kNet)[0].classes(), ElementsAre(kNet, kQuota));
    EXPECT_THAT(startsOf(kNet)[0].eids(), IsEmpty());
    EXPECT_EQ(startsOf(kNet)[0].period_seconds(), 30U);
    EXPECT_THAT(agent().queries(), IsEmpty());
}

TEST_F(Restart, ForgetsWhatTheOldConnectionReported) {
    readFirst({kNet, kQuota});
    EXPECT_EQ(monitor.restart(accessPoint()), 0);
    report({bytesOf({rowOf(kWeb, "1", {5})})});
    ASSERT_EQ(read(), (Readings{{101, {{"1", {{"bytes_in", 5}}}}}}));
    EXPECT_EQ(monitor.restart(accessPoint()), 0);
    EXPECT_EQ(read(), Readings());
    EXPECT_THAT(queriesOf(kNet), SizeIs(1)) << "the class is known, and empty again";
    report({bytesOf({rowOf(kWeb, "1", {3})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"bytes_in", 3}}}}}})) << "totals begin anew";
    EXPECT_THAT(startsOf(kNet), SizeIs(2)) << "one for each restart";
}

TEST_F(Restart, OfAMonitorThatWasAskedForNothingStartsNothing) {
    EXPECT_EQ(monitor.restart(accessPoint()), -1);
    EXPECT_TRUE(settle());
    EXPECT_THAT(agent().starts(), IsEmpty());
}

TEST_F(Restart, WithoutAnAccessPointOnlyForgets) {
    readFirst({kNet});
    EXPECT_EQ(monitor.restart(nullptr), 0);
    EXPECT_TRUE(settle());
    EXPECT_THAT(agent().starts(), IsEmpty());
    EXPECT_EQ(read(), Readings());
    EXPECT_THAT(startsOf(kNet), SizeIs(1)) << "the class is asked for as if for the first time";
}

TEST_F(Restart, GivesTheCodeOfASubscriptionThatCannotBeStartedAndLeavesTheClassToQueries) {
    readFirst({kNet});
    EXPECT_EQ(monitor.restart(unconnected()), KXL_ERROR_DISCONNECT);
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"bytes_in", 5}}}}}}));
    EXPECT_TRUE(settle());
    EXPECT_THAT(agent().starts(), IsEmpty());
    EXPECT_THAT(queriesOf(kNet), SizeIs(1));
}

TEST_F(Restart, LeavesReportsOfTheOldSubscriptionsWelcome) {
    read();
    const std::uint64_t old = agent().monitor();
    EXPECT_EQ(monitor.restart(accessPoint()), 0);
    agent().send(reportFrame(old, {bytesOf({rowOf(kWeb, "1", {5})})}));
    ASSERT_TRUE(settle());
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"bytes_in", 5}}}}}}));
    EXPECT_THAT(agent().stops(), IsEmpty());
}

// Both connections count from the container's start, so that increases of one are none of the other's.
TEST_F(Restart, DuringAQueryKeepsItsAnswerOutOfTheNewTotals) {
    agent().answerQueries([this](const wire::Frame& request) {
        monitor.restart(accessPoint());
        return std::vector{answerFrame(request, {bytesOf({rowOf(kWeb, "1", {5})})})};
    });
    read();
    report({bytesOf({rowOf(kWeb, "1", {7})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"bytes_in", 7}}}}}}));
}

TEST_F(Restart, KeepsTheTypesOfCounters) {
    readFirst({kNet});
    agent().setVocabulary(vocabularyOf({{kNet, {{"bytes_in", 1}}}}));
    ASSERT_TRUE(settle());
    EXPECT_EQ(monitor.restart(accessPoint()), 0);
    report({bytesOf({rowOf(kWeb, "1", {5})})});
    report({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"bytes_in", 10}}}}}}));
}

// The link's own monitor, restarted by the link. Tests after this one find it subscribed.
TEST_F(Restart, IsDoneByTheLinkWithItsNextConnection) {
    SNMPNodeLocal& link = *SNMPNodeLocal::instance();
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {5})}), groupOf(kQuota, {"q1"}, {rowOf(kWeb, "", {1})})});
    ASSERT_FALSE(link.getStats(kQuota).empty());
    ASSERT_FALSE(link.getStats(kNet).empty());
    ASSERT_TRUE(settle());
    agent().reset();
    agent().hangUp();
    ASSERT_TRUE(eventually([] { return !agent().starts().empty(); }));
    ASSERT_TRUE(settle());
    ASSERT_THAT(agent().starts(), SizeIs(1));
    EXPECT_THAT(startsOf(kNet)[0].classes(), ElementsAre(kNet, kQuota));
    EXPECT_TRUE(link.getStats(kNet).empty()) << "of the old connection nothing is left";
    report({bytesOf({rowOf(kStore, "1", {6})})});
    EXPECT_EQ(readingsOf(link.getStats(kNet)), (Readings{{102, {{"1", {{"bytes_in", 6}}}}}}));
}

}  // namespace
}  // namespace kx::test
