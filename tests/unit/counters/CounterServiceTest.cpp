#include "agent/counters/CounterService.h"

#include <gmock/gmock.h>

namespace kx::agent {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr auto kNet = "counters_kx_net";

/// Longer than anything here takes.
constexpr std::chrono::seconds kPatience{10};

wire::MonitorStart monitorOf(std::uint32_t periodSeconds, const std::vector<std::string>& classes = {kNet}) {
    wire::MonitorStart request;
    for (const std::string& name : classes) {
        request.add_classes(name);
    }
    request.set_period_seconds(periodSeconds);
    return request;
}

wire::CounterQuery queryOf(const std::vector<std::string>& classes = {kNet}) {
    wire::CounterQuery request;
    for (const std::string& name : classes) {
        request.add_classes(name);
    }
    return request;
}

/// Keeps what it is sent.
struct Peer {
    CounterService::Send send = [this](std::uint64_t requestId, const FrameBody& body) {
        wire::Frame frame;
        frame.ParseFromString(*body);
        frame.set_request_id(requestId);
        frames.push_back(frame);
    };
    std::vector<wire::Frame> frames;
};

class Service : public testing::Test {
protected:
    Service()
        : service_(
              io_, [this](const CounterSink& sink) { readings_.push_back(sink); }, 0.01) {}

    /// Runs the loop until a condition holds.
    bool runUntil(const std::function<bool()>& condition) {
        const auto end = std::chrono::steady_clock::now() + kPatience;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            io_.restart();
            io_.run_one_for(milliseconds(10));
        }
        return true;
    }
    /// Ends the reading that is under way.
    void finish(std::int64_t value) {
        const auto sink = readings_.back();
        Eid eid;
        eid.bytes.fill(1);
        const auto names = std::make_shared<const std::vector<std::string>>(std::vector<std::string>{"bytes_in"});
        sink({std::chrono::steady_clock::now(), {{kNet, names, {{eid, "1", {value}}}}}});
    }
    /// Ends the reading that is under way with a level and an increase.
    /// @param seconds when they were read
    void finish(int seconds, std::int64_t level, std::int64_t increase) {
        Eid eid;
        eid.bytes.fill(1);
        const auto names =
            std::make_shared<const std::vector<std::string>>(std::vector<std::string>{"bytes_in", "sessions"});
        readings_.back()({begin_ + std::chrono::seconds(seconds), {{kNet, names, {{eid, "1", {increase, level}}}}}});
    }
    /// @return the three numbers of the increase and of the level that a peer was told last
    static std::vector<std::int64_t> lastOf(const Peer& peer) {
        const auto& values = peer.frames.back().counter_sample().groups(0).values();
        return {values.begin(), values.end()};
    }
    static std::int64_t valueOf(const wire::Frame& frame) { return frame.counter_sample().groups(0).values(0); }

    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    boost::asio::io_context io_;
    std::vector<CounterSink> readings_;  ///< that were asked for
    CounterService service_;
    Peer peer_;
    Peer other_;
};

TEST_F(Service, ReadsAtOnceForAQuestionAndAnswersIt) {
    EXPECT_THAT(service_.query(&peer_, peer_.send, 5, queryOf()), IsEmpty());
    ASSERT_THAT(readings_, SizeIs(1));
    EXPECT_THAT(peer_.frames, IsEmpty());
    finish(42);
    ASSERT_THAT(peer_.frames, SizeIs(1));
    EXPECT_EQ(peer_.frames[0].request_id(), 5U);
    EXPECT_EQ(peer_.frames[0].counter_sample().monitor(), 0U);
    EXPECT_EQ(valueOf(peer_.frames[0]), 42);
    EXPECT_GT(peer_.frames[0].counter_sample().time_ms(), 1700000000000U);
}

TEST_F(Service, ReadsAgainForAQuestionThatComesWhileItReads) {
    service_.query(&peer_, peer_.send, 1, queryOf());
    service_.query(&peer_, peer_.send, 2, queryOf());
    service_.query(&other_, other_.send, 3, queryOf());
    EXPECT_THAT(readings_, SizeIs(1));
    finish(10);
    EXPECT_THAT(peer_.frames, SizeIs(1));
    EXPECT_THAT(other_.frames, IsEmpty());
    ASSERT_THAT(readings_, SizeIs(2));
    finish(20);
    ASSERT_THAT(peer_.frames, SizeIs(2));
    EXPECT_EQ(peer_.frames[1].request_id(), 2U);
    EXPECT_EQ(valueOf(peer_.frames[1]), 20);
    ASSERT_THAT(other_.frames, SizeIs(1));
    EXPECT_THAT(readings_, SizeIs(2));
}

TEST_F(Service, ReadsOncePerPeriodHoweverManyMonitorsThereAre) {
    // A period of half a second, within which all are started, and all that is said of a round is looked at.
    service_.setPeriodScale(0.1);
    for (std::uint64_t number = 1; number <= 10; ++number) {
        EXPECT_THAT(service_.start(&peer_, peer_.send, number, monitorOf(5)), IsEmpty());
        EXPECT_THAT(service_.start(&other_, other_.send, number, monitorOf(5)), IsEmpty());
    }
    EXPECT_EQ(service_.monitors(), 20U);
    EXPECT_THAT(readings_, IsEmpty()) << "the first report comes at the period's end";
    for (int round = 1; round <= 3; ++round) {
        ASSERT_TRUE(runUntil([&] { return !readings_.empty(); }));
        ASSERT_THAT(readings_, SizeIs(1));
        finish(round);
        readings_.clear();
        EXPECT_THAT(peer_.frames, SizeIs(10));
        EXPECT_THAT(other_.frames, SizeIs(10));
        EXPECT_EQ(peer_.frames[0].request_id(), 0U);
        EXPECT_EQ(peer_.frames[9].counter_sample().monitor(), 10U);
        peer_.frames.clear();
        other_.frames.clear();
    }
}

TEST_F(Service, ScalesThePeriod) {
    service_.setPeriodScale(0.001);
    service_.start(&peer_, peer_.send, 1, monitorOf(100));
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < 5; ++round) {
        ASSERT_TRUE(runUntil([&] { return !readings_.empty(); }));
        finish(round);
        readings_.clear();
    }
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, milliseconds(400));
    EXPECT_LT(took, milliseconds(5000));
}

TEST_F(Service, ReportsNothingOfAMonitorThatWasStoppedOrWhoseClientHasGone) {
    service_.start(&peer_, peer_.send, 1, monitorOf(1));
    service_.start(&peer_, peer_.send, 2, monitorOf(1));
    service_.start(&other_, other_.send, 1, monitorOf(1));
    service_.stop(&peer_, 1);
    service_.stop(&peer_, 99);
    service_.forget(&other_);
    EXPECT_EQ(service_.monitors(), 1U);
    ASSERT_TRUE(runUntil([&] { return !readings_.empty(); }));
    finish(1);
    EXPECT_THAT(peer_.frames, SizeIs(1));
    EXPECT_EQ(peer_.frames[0].counter_sample().monitor(), 2U);
    EXPECT_THAT(other_.frames, IsEmpty());
}

TEST_F(Service, ForgetsAClientWhoseAnswerIsUnderWay) {
    service_.query(&peer_, peer_.send, 1, queryOf());
    service_.forget(&peer_);
    finish(1);
    EXPECT_THAT(peer_.frames, IsEmpty());
}

TEST_F(Service, RefusesWhatMakesNoSense) {
    EXPECT_THAT(service_.start(&peer_, peer_.send, 1, monitorOf(0)), HasSubstr("1 to 86400 seconds, not 0"));
    EXPECT_THAT(service_.start(&peer_, peer_.send, 1, monitorOf(86401)), HasSubstr("not 86401"));
    EXPECT_THAT(service_.start(&peer_, peer_.send, 1, monitorOf(1, {})), HasSubstr("no counter class"));
    EXPECT_THAT(service_.query(&peer_, peer_.send, 1, queryOf({})), HasSubstr("no counter class"));
    wire::CounterQuery query = queryOf();
    query.add_eids("short");
    EXPECT_THAT(service_.query(&peer_, peer_.send, 1, query), HasSubstr("has 16 bytes, this one has 5"));
    EXPECT_THAT(service_.query(&peer_, peer_.send, 1, queryOf(std::vector<std::string>(65, "x"))),
                HasSubstr("more than 64"));
    EXPECT_THAT(readings_, IsEmpty());
    EXPECT_EQ(service_.monitors(), 0U);
}

TEST_F(Service, RefusesMoreMonitorsThanOneClientCanNeed) {
    for (std::uint64_t number = 1; number <= CounterService::kMaxMonitors; ++number) {
        EXPECT_THAT(service_.start(&peer_, peer_.send, number, monitorOf(30)), IsEmpty());
    }
    EXPECT_THAT(service_.start(&peer_, peer_.send, 100, monitorOf(30)), HasSubstr("64 monitors"));
    EXPECT_THAT(service_.start(&other_, other_.send, 1, monitorOf(30)), IsEmpty()) << "others are not concerned";
}

TEST_F(Service, TellsEachClientWhatHasHappenedSinceItWasToldAndAllTheRateOfTheMoment) {
    const Parameter increase{"bytes_in", {}, {{"counter_type", 2}}};
    service_.setVocabularies({Vocabulary{kBasicFunctionality, {}, {Category{kNet, {increase}}}}});
    service_.query(&peer_, peer_.send, 1, queryOf());
    finish(0, 100, 1000);
    EXPECT_THAT(lastOf(peer_), ElementsAre(0, 0, 1000, 100, 100, 100)) << "all of it, and no rate yet";

    service_.query(&other_, other_.send, 1, queryOf());
    finish(10, 50, 3000);
    EXPECT_THAT(lastOf(other_), ElementsAre(200, 0, 3000, 50, 50, 50)) << "the rate since the other's reading";
    EXPECT_THAT(peer_.frames, SizeIs(1));

    service_.query(&peer_, peer_.send, 2, queryOf());
    service_.query(&other_, other_.send, 2, queryOf());
    finish(20, 10, 3500);
    EXPECT_THAT(lastOf(peer_), ElementsAre(50, 125, 2500, 10, 55, 100)) << "the rates of 10 and of 20 seconds";
    finish(20, 10, 3500);
    EXPECT_THAT(lastOf(other_), ElementsAre(0, 50, 500, 10, 30, 50)) << "a reading later, of the same moment";
}

TEST_F(Service, RefusesMoreQuestionsThanItMayHaveToAnswerAtOnce) {
    for (std::size_t i = 0; i < CounterService::kMaxQuestions; ++i) {
        ASSERT_THAT(service_.query(&peer_, peer_.send, i, queryOf()), IsEmpty());
    }
    EXPECT_THAT(service_.query(&peer_, peer_.send, 1000, queryOf()), HasSubstr("64 questions"));
    EXPECT_THAT(service_.query(&other_, other_.send, 1, queryOf()), IsEmpty());
    finish(1);
    EXPECT_THAT(service_.query(&peer_, peer_.send, 1001, queryOf()), IsEmpty()) << "one has been answered";
}

TEST_F(Service, RefusesEndlessListsOfContainers) {
    wire::CounterQuery request = queryOf();
    for (int i = 0; i < 65537; ++i) {
        request.add_eids(std::string(16, 'e'));
    }
    EXPECT_THAT(service_.query(&peer_, peer_.send, 1, request), HasSubstr("65536 identifiers"));
    request.mutable_eids()->RemoveLast();
    EXPECT_THAT(service_.query(&peer_, peer_.send, 1, request), IsEmpty());
}

TEST_F(Service, MakesAReadingAnewThatWillNotCome) {
    service_.query(&peer_, peer_.send, 1, queryOf());
    service_.readAnew();
    ASSERT_THAT(readings_, SizeIs(2));
    finish(7);
    ASSERT_THAT(peer_.frames, SizeIs(1));
    EXPECT_EQ(valueOf(peer_.frames[0]), 7);
    readings_.pop_back();
    finish(8);
    EXPECT_THAT(peer_.frames, SizeIs(1)) << "the one that was given up comes after all";
    service_.readAnew();
    EXPECT_THAT(readings_, SizeIs(1)) << "nobody waits";
}

TEST_F(Service, AnswersAQuestionAboutAClassThatNobodyKnowsWithNothing) {
    service_.query(&peer_, peer_.send, 1, queryOf({"unknown"}));
    finish(1);
    ASSERT_THAT(peer_.frames, SizeIs(1));
    EXPECT_TRUE(peer_.frames[0].has_counter_sample());
    EXPECT_EQ(peer_.frames[0].counter_sample().groups_size(), 0);
}

TEST_F(Service, LeavesALateReadingAloneWhenItIsGone) {
    auto service = std::make_unique<CounterService>(
        io_, [this](const CounterSink& sink) { readings_.push_back(sink); }, 1.0);
    service->query(&peer_, peer_.send, 1, queryOf());
    service.reset();
    finish(1);
    EXPECT_THAT(peer_.frames, IsEmpty());
}

TEST_F(Service, ANewScaleTakesEffectAtOnce) {
    EXPECT_THAT(service_.start(&peer_, peer_.send, 1, monitorOf(86400)), IsEmpty());
    service_.setPeriodScale(1e-6);
    EXPECT_TRUE(runUntil([&] { return !readings_.empty(); }));
}

TEST_F(Service, AReadingThatWasGivenUpIsNotReported) {
    service_.query(&peer_, peer_.send, 1, queryOf());
    const CounterSink outdated = readings_.back();
    service_.readAnew();
    ASSERT_THAT(readings_, SizeIs(2));
    outdated({std::chrono::steady_clock::now(), {}});
    EXPECT_THAT(peer_.frames, IsEmpty());
    finish(42);
    ASSERT_THAT(peer_.frames, SizeIs(1));
    EXPECT_EQ(valueOf(peer_.frames[0]), 42);
}

TEST_F(Service, AllMonitorsAndQuestionsOfAClientNameABoundedNumberOfContainers) {
    wire::MonitorStart monitor = monitorOf(60);
    wire::CounterQuery query = queryOf();
    for (int i = 0; i < 40'000; ++i) {
        monitor.add_eids(std::string(16, 'e'));
        query.add_eids(std::string(16, 'e'));
    }
    EXPECT_THAT(service_.start(&peer_, peer_.send, 1, monitor), IsEmpty());
    EXPECT_THAT(service_.start(&peer_, peer_.send, 2, monitor), HasSubstr("more than 65536 identifiers"));
    EXPECT_THAT(service_.query(&peer_, peer_.send, 3, query), HasSubstr("more than 65536 identifiers"));
    EXPECT_THAT(service_.query(&other_, other_.send, 1, query), IsEmpty());
}

}  // namespace
}  // namespace kx::agent
