// Counters over a real socket: what a client asks for reaches the service, and ends with the client.
#include "tests/unit/agent/ServerFixture.h"

namespace kx::agent {
namespace {

using test::Peer;
using testing::HasSubstr;

class ServerCounters : public test::ServerFixture {
protected:
    ServerCounters() { settings_.counters = &counters_; }
    ~ServerCounters() override { stop(); }  // before the service goes

    static wire::Frame monitorStart(std::uint64_t number, std::uint32_t periodSeconds) {
        wire::Frame frame;
        frame.set_request_id(number);
        frame.mutable_monitor_start()->add_classes("counters_kx_net");
        frame.mutable_monitor_start()->set_period_seconds(periodSeconds);
        return frame;
    }
    static wire::Frame monitorStop(std::uint64_t monitor) {
        wire::Frame frame;
        frame.mutable_monitor_stop()->set_monitor(monitor);
        return frame;
    }
    static wire::Frame query(std::uint64_t number) {
        wire::Frame frame;
        frame.set_request_id(number);
        frame.mutable_counter_query()->add_classes("counters_kx_net");
        return frame;
    }

    std::size_t monitors() {
        std::size_t count = 0;
        onLoop([&] { count = counters_.monitors(); });
        return count;
    }
    bool becomesIdle() {
        const auto deadline = std::chrono::steady_clock::now() + test::kPatience;
        while (monitors() != 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::yield();
        }
        return true;
    }

    /// Connects, and starts a monitor for each number.
    Peer monitoring(std::initializer_list<std::uint64_t> numbers) {
        Peer peer = connect();
        peer.shakeHands();
        for (const std::uint64_t number : numbers) {
            peer.send(monitorStart(number, 30));
            const auto answer = peer.receive();
            EXPECT_TRUE(answer && answer->has_done());
            EXPECT_EQ(answer->request_id(), number);
        }
        return peer;
    }
    static void expectRefused(Peer& peer, std::uint64_t number, const std::string& why) {
        const auto answer = peer.receive();
        ASSERT_TRUE(answer && answer->has_refusal());
        EXPECT_EQ(answer->request_id(), number);
        EXPECT_THAT(answer->refusal().text(), HasSubstr(why));
        EXPECT_TRUE(peer.isServed());
    }

    std::vector<CounterSink> readings_;  ///< that were asked for; the loop's
    // Periods keep their length: none is over while a test runs, so that nothing is read but for a question.
    CounterService counters_{io_, [this](const CounterSink& sink) { readings_.push_back(sink); }, 1.0};
};

TEST_F(ServerCounters, aMonitorThatIsStoppedIsNoMore) {
    serve();
    Peer peer = monitoring({7, 8});
    EXPECT_EQ(monitors(), 2U);
    peer.send(monitorStop(7));
    ASSERT_TRUE(peer.isServed());
    EXPECT_EQ(monitors(), 1U);
    peer.send(monitorStop(8));
    ASSERT_TRUE(peer.isServed()) << "a stop is not answered";
    EXPECT_EQ(monitors(), 0U);
}

TEST_F(ServerCounters, aClientsMonitorsEndWithItAndNoOthers) {
    serve();
    Peer staying = monitoring({1});
    {
        const Peer leaving = monitoring({1, 2});
        EXPECT_EQ(monitors(), 3U);
    }
    const auto deadline = std::chrono::steady_clock::now() + test::kPatience;
    while (monitors() != 1 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_EQ(monitors(), 1U);
    staying.send(monitorStop(1));
    EXPECT_TRUE(becomesIdle());
}

TEST_F(ServerCounters, allMonitorsEndWithTheServer) {
    serve();
    const Peer peer = monitoring({1});
    stop();
    EXPECT_TRUE(becomesIdle());
}

TEST_F(ServerCounters, aPeriodOfNothingIsRefusedByItsNumber) {
    serve();
    Peer peer = monitoring({});
    peer.send(monitorStart(4711, 0));
    expectRefused(peer, 4711, "not 0");
    EXPECT_EQ(monitors(), 0U);
}

TEST_F(ServerCounters, aQuestionIsAnsweredByItsNumberOnceTheyAreRead) {
    serve();
    Peer peer = monitoring({});
    peer.send(query(5));
    ASSERT_TRUE(peer.isServed()) << "it waits for the reading";
    onLoop([this] {
        ASSERT_EQ(readings_.size(), 1U);
        const auto names = std::make_shared<const std::vector<std::string>>(std::vector<std::string>{"bytes_in"});
        readings_[0]({std::chrono::steady_clock::now(), {{"counters_kx_net", names, {{host().eid, "1", {42}}}}}});
    });
    const auto answer = peer.receive();
    ASSERT_TRUE(answer && answer->has_counter_sample());
    EXPECT_EQ(answer->request_id(), 5U);
    EXPECT_EQ(answer->counter_sample().groups(0).values(0), 42);
}

TEST_F(ServerCounters, whereThereAreNoneThatIsSaid) {
    settings_.counters = nullptr;
    serve();
    Peer peer = monitoring({});
    peer.send(monitorStart(5, 30));
    expectRefused(peer, 5, "there are no counters here");
    peer.send(query(6));
    expectRefused(peer, 6, "there are no counters here");
    peer.send(monitorStop(5));
    EXPECT_TRUE(peer.isServed());
}

}  // namespace
}  // namespace kx::agent
