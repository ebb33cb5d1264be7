// Monitors of counters: how they begin, what reaches their handlers, and how they end.
#include <future>

#include "client/src/loop/Loop.h"
#include "tests/unit/client/CounterFixture.h"

namespace kx::test {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class Monitor : public Counters {
protected:
    Calls startedAnd(const Calls& more) const {
        Calls all = {"first started"};
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    /// Nothing was started, and nobody hears of it.
    void expectNothingStarted() {
        EXPECT_TRUE(settle());
        EXPECT_THAT(agent.starts(), IsEmpty());
        EXPECT_THAT(journal.calls(), IsEmpty());
        EXPECT_EQ(first->referenceCount(), 1);
    }
};

KXLEID eidOf(std::uint8_t number) {
    KXLGUIDBase::Bytes bytes{};
    bytes.back() = number;
    return KXLEID(bytes);
}

// ---- beginning ------------------------------------------------------------------------------------------------------

TEST_F(Monitor, AsksForItsClassesItsContainersAndItsPeriod) {
    bringUp();
    EXPECT_EQ(start(first, {kQuota, kNet}, {eidOf(1), eidOf(2)}, 7), 0);
    ASSERT_TRUE(journal.becomes({"first started"}));
    const wire::MonitorStart request = agent.starts().at(0).monitor_start();
    EXPECT_THAT(request.classes(), ElementsAre(kNet, kQuota));
    EXPECT_THAT(request.eids(), ElementsAre(std::string(15, '\0') + '\1', std::string(15, '\0') + '\2'));
    EXPECT_EQ(request.period_seconds(), 7U);
}

TEST_F(Monitor, OfAllContainersNamesNone) {
    bringUp();
    startAndWait(first, "first");
    EXPECT_THAT(agent.starts().at(0).monitor_start().eids(), IsEmpty());
}

TEST_F(Monitor, IsToldOnTheLoopThreadThatTheAgentHasTakenItOn) {
    bringUp();
    startAndWait(first, "first");
    EXPECT_EQ(journal.calls(), Calls{"first started"});
    EXPECT_NE(first->thread, std::this_thread::get_id());
}

TEST_F(Monitor, IsToldOnceWhenItIsRefusedAndForgotten) {
    agent.answerStarts([](const wire::Frame& request) {
        return std::vector{refusalFrame(request), reportFrame(request.request_id(), {groupWith(5)})};
    });
    bringUp();
    EXPECT_EQ(start(first), 0);
    ASSERT_TRUE(journal.becomes({"first error -7"}));
    EXPECT_NE(first->thread, std::this_thread::get_id());
    EXPECT_TRUE(settle());
    EXPECT_EQ(journal.calls(), Calls{"first error -7"});
    EXPECT_EQ(first->referenceCount(), 1);
    EXPECT_FALSE(first->getContext());
}

TEST_F(Monitor, TakesAnAnswerOfAnotherKindForARefusal) {
    agent.answerStarts([](const wire::Frame& request) { return std::vector{answerFrame(request, {groupWith(5)})}; });
    bringUp();
    EXPECT_EQ(start(first), 0);
    EXPECT_TRUE(journal.becomes({"first error -7"}));
}

TEST_F(Monitor, OutlivesTheAgentObjectThatStartedItAndItsCallersReference) {
    bringUp();
    startAndWait(first, "first");
    first.reset();
    agent.report({groupWith(5)});
    EXPECT_TRUE(journal.becomes(startedAnd({"first data counters_kx_net=5"})));
}

TEST_F(Monitor, MayBeStartedOnTheLoopThread) {
    bringUp();
    std::promise<int> code;
    loop->loop()->post([&] { code.set_value(start(first)); });
    EXPECT_EQ(code.get_future().get(), 0);
    EXPECT_TRUE(journal.becomes({"first started"}));
}

// ---- calls that start nothing ---------------------------------------------------------------------------------------

TEST_F(Monitor, IsNotStartedForAHandlerThatTakesNoReports) {
    bringUp();
    EXPECT_EQ(start(handler), KXL_ERROR_REFUSED);
    EXPECT_EQ(start(nullptr), KXL_ERROR_REFUSED);
    expectNothingStarted();
    EXPECT_THAT(handler->calls(), IsEmpty());
}

TEST_F(Monitor, IsNotStartedByASynchronousRequest) {
    bringUp();
    KXLMonitorAgent starter(accessPoint->getEID(), accessPoint);
    starter.getRequest().getContext()->setHandler(first);
    std::set<KXLEID> unwanted;
    EXPECT_EQ(starter.startMonitoring({}, classList({kNet}), 30, unwanted, 0), KXL_ERROR_REFUSED);
    starter.getRequest().getContext()->setHandler(nullptr);
    expectNothingStarted();
}

TEST_F(Monitor, IsNotStartedWithoutAPeriod) {
    bringUp();
    EXPECT_EQ(start(first, {kNet}, {}, 0), KXL_ERROR_REFUSED);
    EXPECT_EQ(start(first, {kNet}, {}, -30), KXL_ERROR_REFUSED);
    expectNothingStarted();
}

TEST_F(Monitor, IsNotStartedOnAnAgentThatIsNotThisOne) {
    bringUp();
    std::set<KXLEID> unwanted;
    for (KXLMonitorAgent starter : {KXLMonitorAgent(eidOf(1), accessPoint), KXLMonitorAgent(eidOf(1), nullptr)}) {
        starter.getRequest().getContext()->setHandler(first);
        starter.getRequest().getContext()->setSynchronous(false);
        EXPECT_EQ(starter.startMonitoring({}, classList({kNet}), 30, unwanted, 0), KXL_ERROR_DISCONNECT);
    }
    expectNothingStarted();
}

TEST_F(Monitor, IsNotStartedBeforeTheFirstConnection) {
    EXPECT_EQ(start(first), KXL_ERROR_DISCONNECT);
    EXPECT_EQ(first->referenceCount(), 1);
}

TEST_F(Monitor, IsNotStartedWhileTheAgentIsAway) {
    bringUp();
    agent.setAway(true);
    agent.hangUp();
    ASSERT_TRUE(journal.becomes({"link lost"}));
    EXPECT_EQ(start(first), KXL_ERROR_DISCONNECT);
    EXPECT_EQ(journal.calls(), Calls{"link lost"});
    EXPECT_EQ(first->referenceCount(), 1);
}

// ---- reports --------------------------------------------------------------------------------------------------------

TEST_F(Monitor, GetsItsReportsOnTheLoopThread) {
    bringUp();
    startAndWait(first, "first");
    agent.report({groupWith(5)});
    agent.report({groupWith(6)});
    agent.report({});
    EXPECT_TRUE(
        journal.becomes(startedAnd({"first data counters_kx_net=5", "first data counters_kx_net=6", "first data "})));
    EXPECT_NE(first->thread, std::this_thread::get_id());
}

TEST_F(Monitor, GetsNoReportsOfOthers) {
    bringUp();
    const MonitorPtr second = handlerNamed("second");
    const std::uint64_t firstNumber = startAndWait(first, "first");
    const std::uint64_t secondNumber = startAndWait(second, "second");
    journal.clear();
    agent.send(reportFrame(secondNumber, {groupWith(2)}));
    agent.send(reportFrame(secondNumber + 1000, {groupWith(3)}));
    agent.send(reportFrame(0, {groupWith(4)}));
    agent.send(reportFrame(firstNumber, {groupWith(1)}));
    EXPECT_TRUE(settle());
    EXPECT_EQ(journal.calls(), (Calls{"second data counters_kx_net=2", "first data counters_kx_net=1"}));
}

TEST_F(Monitor, GetsAReportInSeveralFramesAsOne) {
    bringUp();
    const std::uint64_t number = startAndWait(first, "first", {kNet, kQuota});
    auto part = reportFrame(number, {groupWith(1)});
    part.mutable_counter_sample()->set_continued(true);
    agent.send(part);
    EXPECT_TRUE(settle());
    EXPECT_EQ(journal.calls(), Calls{"first started"}) << "the report is not yet there";
    agent.send(reportFrame(number, {groupWith(2, kQuota)}));
    EXPECT_TRUE(settle());
    EXPECT_EQ(journal.calls(), startedAnd({"first data counters_kx_net=1 counters_kx_quota=2"}));
}

// What the loop has seen, but must not deliver yet, shows in the environments: these are published at once.
TEST_F(Monitor, HearsNothingBeforeInitializeHasReturned) {
    agent.answerStarts([](const wire::Frame& request) {
        return std::vector{doneFrame(request), reportFrame(request.request_id(), {groupWith(5)}),
                           reportFrame(request.request_id(), {groupWith(6)}), deltaFrame(2, {kWeb})};
    });
    linkHandler->whenUp = [this] {
        EXPECT_EQ(start(first), 0);
        EXPECT_TRUE(eventually([this] { return environments() == 1; }));
        EXPECT_EQ(journal.calls(), Calls{"link up"});
    };
    ASSERT_EQ(initialize(agent.path()), 0);
    // Each report as it was: the later one is not written over the earlier one, which nobody has read yet.
    EXPECT_TRUE(
        journal.becomes({"link up", "first started", "first data counters_kx_net=5", "first data counters_kx_net=6"}));
}

// ---- reports that make no sense -------------------------------------------------------------------------------------

TEST_F(Monitor, EndsWithTheLinkOverAReportThatMakesNoSense) {
    bringUp();
    startAndWait(first, "first");
    auto bad = groupWith(5);
    bad.add_values(1);
    agent.report({bad});
    ASSERT_TRUE(journal.becomes(startedAnd({"link lost", "first error -5", "link up"})));
    ASSERT_THAT(LogCollector::lines(), SizeIs(1));
    EXPECT_THAT(LogCollector::lines()[0], HasSubstr(agent.path()));
    EXPECT_THAT(LogCollector::lines()[0], HasSubstr("columns do not fit together; connection closed"));
}

TEST_F(Monitor, EndsWithTheLinkOverAReportWithoutEnd) {
    bringUp();
    auto part = reportFrame(startAndWait(first, "first"), {});
    part.mutable_counter_sample()->set_continued(true);
    for (int i = 0; i < 1001; ++i) {
        agent.send(part);
    }
    ASSERT_TRUE(journal.becomes(startedAnd({"link lost", "first error -5", "link up"})));
    ASSERT_THAT(LogCollector::lines(), SizeIs(1));
    EXPECT_THAT(LogCollector::lines()[0], HasSubstr("too many frames; connection closed"));
}

// ---- the end --------------------------------------------------------------------------------------------------------

TEST_F(Monitor, IsEndedByStopWhichTellsTheAgent) {
    bringUp();
    const std::uint64_t number = startAndWait(first, "first");
    first->stop();
    ASSERT_TRUE(journal.becomes(startedAnd({"first error -3"})));
    EXPECT_NE(first->thread, std::this_thread::get_id());
    agent.send(reportFrame(number, {groupWith(5)}));
    first->stop();
    EXPECT_TRUE(settle());
    EXPECT_THAT(agent.stops(), ElementsAre(number));
    EXPECT_EQ(journal.calls(), startedAnd({"first error -3"}));
    EXPECT_EQ(first->referenceCount(), 1);
}

TEST_F(Monitor, IsEndedByStopBeforeTheAgentHasAnswered) {
    agent.answerStarts([](const wire::Frame&) { return std::vector<wire::Frame>(); });
    bringUp();
    EXPECT_EQ(start(first), 0);
    const std::uint64_t number = agent.monitor();
    first->stop();
    ASSERT_TRUE(journal.becomes({"first error -3"}));
    agent.send(doneFrame(agent.starts().at(0)));
    EXPECT_TRUE(settle());
    EXPECT_THAT(agent.stops(), ElementsAre(number));
    EXPECT_EQ(journal.calls(), Calls{"first error -3"});
}

// On the loop's own thread, so that the loop cannot have begun it in between.
TEST_F(Monitor, IsEndedByStopBeforeTheLoopHasBegunIt) {
    bringUp();
    loop->loop()->post([this] {
        EXPECT_EQ(start(first), 0);
        first->stop();
    });
    ASSERT_TRUE(journal.becomes({"first error -3"}));
    EXPECT_TRUE(settle());
    EXPECT_THAT(agent.stops(), ElementsAre(agent.monitor()));
    EXPECT_EQ(first->referenceCount(), 1);
}

TEST_F(Monitor, MayStopItselfInAReport) {
    bringUp();
    const std::uint64_t number = startAndWait(first, "first");
    first->whenData = [this] { first->stop(); };
    agent.report({groupWith(5)});
    ASSERT_TRUE(journal.becomes(startedAnd({"first data counters_kx_net=5", "first error -3"})));
    agent.report({groupWith(6)});
    EXPECT_TRUE(settle());
    EXPECT_THAT(agent.stops(), ElementsAre(number));
    EXPECT_EQ(journal.calls(), startedAnd({"first data counters_kx_net=5", "first error -3"}));
}

TEST_F(Monitor, ThatIsStoppedLeavesTheOthersAlone) {
    bringUp();
    const MonitorPtr second = handlerNamed("second");
    startAndWait(first, "first");
    const std::uint64_t number = startAndWait(second, "second");
    first->stop();
    agent.send(reportFrame(number, {groupWith(5)}));
    EXPECT_TRUE(eventually([&] { return journal.has("second data counters_kx_net=5"); }));
}

TEST_F(Monitor, HearsOfALossAfterTheLinkAndIsNotStartedAnew) {
    bringUp();
    const MonitorPtr second = handlerNamed("second");
    startAndWait(first, "first");
    startAndWait(second, "second");
    journal.clear();
    agent.hangUp();
    ASSERT_TRUE(journal.becomes(
        {"link lost", "first disconnected", "first error -4", "second disconnected", "second error -4", "link up"}));
    EXPECT_TRUE(settle());
    EXPECT_THAT(agent.starts(), SizeIs(2));
    EXPECT_EQ(first->referenceCount(), 1);
    EXPECT_FALSE(first->getContext());
}

TEST_F(Monitor, HearsOfALossBeforeTheAgentHasAnswered) {
    agent.answerStarts([](const wire::Frame&) { return std::vector<wire::Frame>(); });
    bringUp();
    EXPECT_EQ(start(first), 0);
    agent.monitor();
    agent.hangUp();
    EXPECT_TRUE(journal.becomes({"link lost", "first disconnected", "first error -4", "link up"}));
}

// The loop is kept busy until the link has been given up and the monitor been asked for, in this order.
TEST_F(Monitor, HearsOfALinkThatIsGivenUpBeforeTheLoopHasBegunIt) {
    bringUp();
    std::promise<void> go;
    loop->loop()->post([&go] { go.get_future().wait(); });
    linkHandler->cancel();
    EXPECT_EQ(start(first), 0);
    go.set_value();
    ASSERT_TRUE(journal.becomes({"link lost", "first disconnected", "first error -4"}));
    EXPECT_FALSE(first->getContext());
    EXPECT_THAT(agent.starts(), IsEmpty());
}

TEST_F(Monitor, MayBeStartedAnewWhenTheLinkIsBack) {
    bringUp();
    linkHandler->whenUp = [this] { EXPECT_EQ(start(first), 0); };
    agent.hangUp();
    ASSERT_TRUE(journal.becomes({"link lost", "link up", "first started"}));
    agent.report({groupWith(5)});
    EXPECT_TRUE(journal.becomes({"link lost", "link up", "first started", "first data counters_kx_net=5"}));
}

TEST_F(Monitor, IsDroppedInSilenceWhenTheLoopStops) {
    bringUp();
    startAndWait(first, "first");
    loop->stop();
    EXPECT_EQ(journal.calls(), Calls{"first started"});
    EXPECT_EQ(first->referenceCount(), 1);
    EXPECT_FALSE(first->getContext());
    first->stop();
    EXPECT_EQ(journal.calls(), Calls{"first started"});
    EXPECT_NE(start(first), 0);
}

TEST_F(Monitor, IsDroppedInSilenceWithItsAccessPoint) {
    bringUp();
    startAndWait(first, "first");
    accessPoint.reset();
    EXPECT_TRUE(eventually([this] { return first->referenceCount() == 1; }));
    EXPECT_EQ(journal.calls(), Calls{"first started"});
}

}  // namespace
}  // namespace kx::test
