// What was before a subscription, for subscribers that ask for it.
#include "agent/server/EventHistory.h"

#include "tests/unit/agent/ServerFixture.h"

namespace kx::agent {
namespace {

using test::Peer;
using testing::IsEmpty;
using testing::SizeIs;

constexpr WallTime kNow{std::chrono::milliseconds(1'700'000'000'123)};

class EarlierEvents : public test::ServerFixture {
protected:
    ~EarlierEvents() override { stop(); }

    void publish(const std::string& text) {
        const Alert alert{
            {Eid::fromName("machine", "web"), "memory.oom", kAlertCritical, text, 3}, 0, std::chrono::nanoseconds(0)};
        onLoop([&] { server_->publish(std::vector{alert}); });
    }
};

TEST_F(EarlierEvents, comeFirstForWhoAsksForThem) {
    WallTime now = kNow - std::chrono::hours(1);
    settings_.clock = [&now] { return now; };
    serve();
    publish("too early");
    now = kNow;
    publish("missed");
    Peer peer = connect();
    peer.shakeHands();
    wire::Frame frame;
    frame.set_request_id(5);
    frame.mutable_event_subscribe()->set_name(std::string(wire::kEventsName));
    frame.mutable_event_subscribe()->set_since_ms(1'700'000'000'123U);
    peer.send(frame);
    EXPECT_TRUE(peer.receive()->has_done());
    publish("new");
    for (const std::string text : {"missed", "new"}) {
        const auto received = peer.receive();
        ASSERT_TRUE(received);
        ASSERT_THAT(received->event_message().events(), SizeIs(1));
        EXPECT_EQ(received->event_message().events(0).resource_alert().text(), text);
    }
}

TEST(EventHistory, DropsTheOldestWhenThereIsTooMuch) {
    EventHistory history;
    const auto frame = [](std::size_t bytes) { return std::make_shared<const std::string>(bytes, 'x'); };
    history.add({frame(EventHistory::kMostBytes / 2), frame(EventHistory::kMostBytes / 2)}, kNow);
    EXPECT_THAT(history.since(0), SizeIs(2));
    history.add({frame(1)}, kNow);
    EXPECT_THAT(history.since(0), SizeIs(2));
    EXPECT_THAT(history.since(0).back()->size(), 1);
    history.add(std::vector<FrameBody>(EventHistory::kMostFrames + 5, frame(1)), kNow);
    EXPECT_THAT(history.since(0), SizeIs(EventHistory::kMostFrames));
    EXPECT_THAT(history.since(~std::uint64_t{0}), IsEmpty());
}

}  // namespace
}  // namespace kx::agent
