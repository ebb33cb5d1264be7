// One-shot queries for counters: what is asked, how long a caller waits, and what becomes of answers that come late.
#include <future>

#include "client/src/loop/Loop.h"
#include "tests/unit/client/CounterFixture.h"

namespace kx::test {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr milliseconds kPromise{500};

/// Room above what is promised for a loaded machine; a lost deadline would take far longer.
constexpr milliseconds kSlack{2000};

/// What does not wait out the half second is done by then, the best of several times.
constexpr milliseconds kAtOnce{250};
constexpr int kTries = 5;

std::vector<wire::Frame> sayNothing(const wire::Frame&) {
    return {};
}

class CounterQuery : public Counters {
protected:
    explicit CounterQuery(const client::Timeouts& timeouts = {}) : Counters(timeouts) {}

    /// Asks an agent that does not answer.
    /// @return what it was asked, to be answered late
    wire::Frame unanswered(const std::vector<std::string>& classes = {kNet}) {
        agent.answerQueries(sayNothing);
        EXPECT_EQ(query(classes), KXL_ERROR_TIMEOUT);
        EXPECT_TRUE(eventually([this] { return !agent.queries().empty(); }));
        return agent.queries().back();
    }
    /// @brief Queries until one has ended at once, a few times; all must end with this code.
    void expectAtOnce(int code, const std::function<int()>& ask) {
        milliseconds least = milliseconds::max();
        for (int round = 0; round < kTries && least >= kAtOnce; ++round) {
            EXPECT_EQ(ask(), code);
            least = std::min(least, took);
        }
        EXPECT_LT(least, kAtOnce);
    }
    void expectAtOnce(int code) {
        expectAtOnce(code, [this] { return query(); });
    }
    /// Nobody is told, and the link goes on.
    void expectNobodyHears() {
        EXPECT_TRUE(settle());
        EXPECT_THAT(journal.calls(), IsEmpty());
        EXPECT_THAT(LogCollector::lines(), IsEmpty());
    }
};

// ---- answers --------------------------------------------------------------------------------------------------------

TEST_F(CounterQuery, AsksForItsClassesAndItsContainers) {
    bringUp();
    KXLGUIDBase::Bytes bytes{};
    bytes.back() = 7;
    EXPECT_EQ(query({kQuota, kNet}, {KXLEID(bytes)}), 0);
    const wire::CounterQuery request = agent.queries().at(0).counter_query();
    EXPECT_THAT(request.classes(), ElementsAre(kNet, kQuota));
    EXPECT_THAT(request.eids(), ElementsAre(std::string(15, '\0') + '\7'));
}

TEST_F(CounterQuery, OfAllContainersNamesNone) {
    bringUp();
    EXPECT_EQ(query(), 0);
    EXPECT_THAT(agent.queries().at(0).counter_query().eids(), IsEmpty());
}

TEST_F(CounterQuery, GivesTheAgentsAnswer) {
    bringUp();
    agent.answerQueriesWith({groupWith(5), groupWith(6, kQuota)});
    EXPECT_EQ(query({kNet, kQuota}), 0);
    EXPECT_THAT(output, SizeIs(1));
    EXPECT_EQ(textOf(output), "counters_kx_net=5 counters_kx_quota=6");
}

TEST_F(CounterQuery, OfAnAgentThatHasNothingToReportSucceedsWithNothing) {
    bringUp();
    EXPECT_EQ(query(), 0);
    EXPECT_THAT(output, IsEmpty());
}

TEST_F(CounterQuery, TakesAnAnswerInSeveralFramesForOne) {
    bringUp();
    agent.answerQueries([](const wire::Frame& request) {
        std::vector frames = {answerFrame(request, {groupWith(1)}), answerFrame(request, {}),
                              answerFrame(request, {groupWith(2, kQuota)})};
        frames[0].mutable_counter_sample()->set_continued(true);
        frames[1].mutable_counter_sample()->set_continued(true);
        return frames;
    });
    EXPECT_EQ(query({kNet, kQuota}), 0);
    EXPECT_EQ(textOf(output), "counters_kx_net=1 counters_kx_quota=2");
}

TEST_F(CounterQuery, IsNotAnsweredByAReportNorAMonitorByAnAnswer) {
    bringUp();
    const std::uint64_t number = startAndWait(first, "first");
    agent.answerQueries([number](const wire::Frame& request) {
        return std::vector{reportFrame(number, {groupWith(1)}), answerFrame(request, {groupWith(2)})};
    });
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(textOf(output), "counters_kx_net=2");
    EXPECT_TRUE(settle());
    EXPECT_EQ(journal.calls(), (Calls{"first started", "first data counters_kx_net=1"}));
}

TEST_F(CounterQuery, GivesEachOfSeveralCallersItsOwnAnswer) {
    bringUp();
    agent.answerQueries([](const wire::Frame& request) {
        return std::vector{answerFrame(request, {groupWith(1, request.counter_query().classes(0))})};
    });
    const auto askOften = [this](const std::string& name) {
        int right = 0;
        for (int i = 0; i < 25; ++i) {
            std::vector<KXLMonitorData> own;
            const std::string asked = name + std::to_string(i);
            KXLPerfMonAgent(accessPoint->getEID(), accessPoint).query(own, {}, classList({asked}));
            right += textOf(own) == asked + "=1" ? 1 : 0;
        }
        return right;
    };
    std::vector<std::future<int>> callers;
    for (const char* const name : {"a", "b", "c", "d"}) {
        callers.push_back(std::async(std::launch::async, askOften, name));
    }
    for (auto& caller : callers) {
        EXPECT_EQ(caller.get(), 25);
    }
}

// ---- answers that give nothing --------------------------------------------------------------------------------------

TEST_F(CounterQuery, FailsWhenItIsRefused) {
    bringUp();
    agent.answerQueries([](const wire::Frame& request) { return std::vector{refusalFrame(request)}; });
    expectAtOnce(KXL_ERROR_REFUSED);
}

TEST_F(CounterQuery, TakesAnAnswerOfAnotherKindForARefusal) {
    bringUp();
    agent.answerQueries([](const wire::Frame& request) { return std::vector{doneFrame(request)}; });
    EXPECT_EQ(query(), KXL_ERROR_REFUSED);
}

TEST_F(CounterQuery, FailsWhenTheAnswerMakesNoSense) {
    bringUp();
    auto bad = groupWith(5);
    bad.add_instances("2");
    agent.answerQueriesWith({bad});
    expectAtOnce(KXL_ERROR_REFUSED);
}

TEST_F(CounterQuery, EndsTheLinkOverAnAnswerWithoutEnd) {
    bringUp();
    agent.answerQueries([](const wire::Frame& request) {
        std::vector frames(1001, answerFrame(request, {}));
        for (wire::Frame& frame : frames) {
            frame.mutable_counter_sample()->set_continued(true);
        }
        return frames;
    });
    EXPECT_EQ(query(), KXL_ERROR_DISCONNECT);
    EXPECT_TRUE(journal.becomes({"link lost", "link up"}));
    EXPECT_THAT(LogCollector::lines(), SizeIs(1));
}

TEST_F(CounterQuery, IsRefusedWhereTheAnswerIsTooLargeAndTheLinkGoesOn) {
    bringUp();
    auto group = groupOf(kNet, {}, {});
    for (int row = 0; row < 100'000; ++row) {
        group.mutable_eids()->append(kWeb.eid());
        group.add_instances("");
    }
    agent.answerQueriesWith({group});
    EXPECT_EQ(query(), KXL_ERROR_REFUSED);
    EXPECT_THAT(LogCollector::lines(), SizeIs(1));
    EXPECT_TRUE(settle());
    EXPECT_THAT(journal.calls(), IsEmpty());
}

// ---- no answer ------------------------------------------------------------------------------------------------------

TEST_F(CounterQuery, GivesASilentAgentItsHalfSecondAndThoseThatFollowNothing) {
    bringUp();
    agent.answerQueries(sayNothing);
    EXPECT_EQ(query(), KXL_ERROR_TIMEOUT);
    EXPECT_GE(took, kPromise);
    EXPECT_LT(took, kPromise + kSlack);
    milliseconds all{0};
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(query(), KXL_ERROR_TIMEOUT);
        all += took;
    }
    EXPECT_LT(all, kAtOnce);
    EXPECT_THAT(agent.queries(), SizeIs(1));
}

TEST_F(CounterQuery, IsTriedAgainOnceTheAgentHasSaidSomething) {
    bringUp();
    unanswered();
    agent.answerQueriesWith({groupWith(5)});
    EXPECT_EQ(query(), KXL_ERROR_TIMEOUT) << "silent still";
    agent.change(kWeb);
    EXPECT_TRUE(eventually([this] { return query() == 0; }, milliseconds(4000)));
    EXPECT_EQ(textOf(output), "counters_kx_net=5");
}

class BrieflySilent : public CounterQuery {
protected:
    static client::Timeouts briefly() {
        client::Timeouts timeouts;
        timeouts.silence = milliseconds(100);
        return timeouts;
    }
    BrieflySilent() : CounterQuery(briefly()) {}
};

TEST_F(BrieflySilent, IsTriedAgainAfterAWhile) {
    bringUp();
    unanswered();
    agent.answerQueriesWith({groupWith(5)});
    EXPECT_TRUE(eventually([this] { return query() == 0; }));
}

TEST_F(CounterQuery, EndsAtOnceWhenTheAgentIsLostMeanwhile) {
    bringUp();
    agent.answerQueries([this](const wire::Frame&) {
        agent.hangUp();
        return std::vector<wire::Frame>();
    });
    expectAtOnce(KXL_ERROR_DISCONNECT, [this] {
        EXPECT_TRUE(settle()) << "the link does not come up again";
        return query();
    });
}

TEST_F(CounterQuery, FailsAtOnceWhileTheAgentIsAway) {
    bringUp();
    agent.setAway(true);
    agent.hangUp();
    ASSERT_TRUE(journal.becomes({"link lost"}));
    expectAtOnce(KXL_ERROR_DISCONNECT);
}

TEST_F(CounterQuery, FailsAtOnceBeforeTheFirstConnectionAndOnAnotherAgent) {
    expectAtOnce(KXL_ERROR_DISCONNECT);
    bringUp();
    KXLGUIDBase::Bytes other{};
    other.back() = 1;
    EXPECT_EQ(KXLPerfMonAgent(KXLEID(other), accessPoint).query(output, {}, classList({kNet})), KXL_ERROR_DISCONNECT);
    EXPECT_EQ(KXLPerfMonAgent(accessPoint->getEID(), nullptr).query(output, {}, classList({kNet})),
              KXL_ERROR_DISCONNECT);
}

TEST_F(CounterQuery, WaitsForNothingOnTheLoopThread) {
    bringUp();
    expectAtOnce(KXL_ERROR_STOPPED, [this] {
        std::promise<int> result;
        loop->loop()->post([&] { result.set_value(query()); });
        return result.get_future().get();
    });
    EXPECT_TRUE(settle());
    EXPECT_THAT(agent.queries(), IsEmpty());
}

TEST_F(CounterQuery, FailsOnceTheLoopHasStopped) {
    bringUp();
    loop->stop();
    expectAtOnce(KXL_ERROR_STOPPED);
}

TEST_F(CounterQuery, EndsAtOnceWhenTheLoopStopsMeanwhile) {
    bringUp();
    agent.answerQueries(sayNothing);
    auto result = std::async(std::launch::async, [this] { return query(); });
    ASSERT_TRUE(eventually([this] { return !agent.queries().empty(); }));
    loop->stop();
    EXPECT_EQ(result.get(), KXL_ERROR_DISCONNECT);
    EXPECT_LT(took, kPromise);
}

// ---- late answers: their increases are lost unless somebody adds them up
// ------------------------------------------------

TEST_F(CounterQuery, GivesALateAnswerToTheMonitorOfItsClassOnce) {
    bringUp();
    startAndWait(first, "first");
    journal.clear();
    const wire::Frame late = unanswered();
    EXPECT_THAT(journal.calls(), IsEmpty());
    agent.send(answerFrame(late, {groupWith(5)}));
    EXPECT_TRUE(settle());
    EXPECT_EQ(journal.calls(), Calls{"first data counters_kx_net=5"});
    EXPECT_NE(first->thread, std::this_thread::get_id());
    agent.send(answerFrame(late, {groupWith(5)}));
    EXPECT_TRUE(settle());
    EXPECT_EQ(journal.calls(), Calls{"first data counters_kx_net=5"}) << "a second answer to one question is none";
}

TEST_F(CounterQuery, GivesALateAnswerToOneMonitorOnlyWhereSeveralReportItsClass) {
    bringUp();
    const MonitorPtr second = handlerNamed("second");
    const MonitorPtr third = handlerNamed("third");
    startAndWait(first, "first", {kQuota});
    startAndWait(second, "second", {kNet, kQuota});
    startAndWait(third, "third", {kNet});
    journal.clear();
    agent.send(answerFrame(unanswered(), {groupWith(5)}));
    EXPECT_TRUE(settle());
    EXPECT_EQ(journal.calls(), Calls{"second data counters_kx_net=5"});
}

TEST_F(CounterQuery, GivesALateAnswerOfTwoClassesToAMonitorOfBoth) {
    bringUp();
    const MonitorPtr second = handlerNamed("second");
    startAndWait(first, "first", {kNet});
    startAndWait(second, "second", {kNet, kQuota});
    journal.clear();
    agent.send(answerFrame(unanswered({kNet, kQuota}), {groupWith(5), groupWith(6, kQuota)}));
    EXPECT_TRUE(settle());
    EXPECT_EQ(journal.calls(), Calls{"second data counters_kx_net=5 counters_kx_quota=6"});
}

TEST_F(CounterQuery, GivesALateAnswerInSeveralFramesAsOne) {
    bringUp();
    startAndWait(first, "first", {kNet, kQuota});
    journal.clear();
    const wire::Frame late = unanswered();
    auto part = answerFrame(late, {groupWith(5)});
    part.mutable_counter_sample()->set_continued(true);
    agent.send(part);
    agent.send(answerFrame(late, {groupWith(6, kQuota)}));
    EXPECT_TRUE(settle());
    EXPECT_EQ(journal.calls(), Calls{"first data counters_kx_net=5 counters_kx_quota=6"});
}

TEST_F(CounterQuery, GivesALateAnswerToNobodyWhereNoMonitorReportsItsClass) {
    bringUp();
    startAndWait(first, "first", {kQuota});
    journal.clear();
    agent.send(answerFrame(unanswered(), {groupWith(5)}));
    expectNobodyHears();
}

TEST_F(CounterQuery, GivesALateAnswerToNobodyWhereThereIsNoMonitorAnyMore) {
    bringUp();
    startAndWait(first, "first");
    first->stop();
    ASSERT_TRUE(eventually([this] { return journal.has("first error -3"); }));
    journal.clear();
    agent.send(answerFrame(unanswered(), {groupWith(5)}));
    expectNobodyHears();
}

TEST_F(CounterQuery, GivesALateAnswerThatSaysNothingToNobody) {
    bringUp();
    startAndWait(first, "first");
    journal.clear();
    const wire::Frame late = unanswered();
    agent.send(answerFrame(late, {}));
    expectNobodyHears();
}

TEST_F(CounterQuery, GivesALateRefusalToNobody) {
    bringUp();
    startAndWait(first, "first");
    journal.clear();
    agent.send(refusalFrame(unanswered()));
    expectNobodyHears();
}

TEST_F(CounterQuery, GivesALateAnswerThatMakesNoSenseToNobody) {
    bringUp();
    startAndWait(first, "first");
    journal.clear();
    auto bad = groupWith(5);
    bad.add_values(1);
    agent.send(answerFrame(unanswered(), {bad}));
    EXPECT_TRUE(settle());
    EXPECT_FALSE(journal.has("first data counters_kx_net=5"));
}

TEST_F(CounterQuery, LosesALateAnswerWithItsConnection) {
    bringUp();
    const wire::Frame late = unanswered();
    agent.hangUp();
    ASSERT_TRUE(journal.becomes({"link lost", "link up"}));
    startAndWait(first, "first");
    journal.clear();
    agent.send(answerFrame(late, {groupWith(5)}));
    expectNobodyHears();
}

}  // namespace
}  // namespace kx::test
