// What a well-behaved client gets.
#include "tests/unit/agent/ServerFixture.h"

namespace kx::agent {
namespace {

using test::Peer;
using testing::ElementsAre;

class ServerService : public test::ServerFixture {
protected:
    static std::vector<std::string> namesIn(const wire::SnapshotChunk& chunk) {
        std::vector<std::string> names;
        for (const wire::Environment& one : chunk.environments()) {
            names.push_back(one.configuration().name());
        }
        return names;
    }
};

TEST_F(ServerService, aHelloIsAnsweredByTheAgentsOwn) {
    serve();
    Peer peer = connect();
    peer.sendHello();
    const auto answer = peer.receive();
    ASSERT_TRUE(answer && answer->has_hello());
    EXPECT_EQ(answer->hello().protocol_major(), wire::kProtocolMajor);
    EXPECT_EQ(answer->hello().protocol_minor(), wire::kProtocolMinor);
    EXPECT_EQ(answer->hello().program(), "kxagentd 1.2.3");
    EXPECT_EQ(answer->hello().server_eid(), settings_.serverEid.toWire());
    EXPECT_TRUE(wire::hasCapability(answer->hello(), wire::kCapabilitySnapshot));
    EXPECT_EQ(logged(), "") << "a client that does what it should is not worth a line";
}

TEST_F(ServerService, anotherMinorVersionIsServed) {
    serve();
    Peer peer = connect();
    wire::Frame frame;
    *frame.mutable_hello() = wire::makeHello("newer");
    frame.mutable_hello()->set_protocol_minor(99);
    peer.send(frame);
    EXPECT_TRUE(peer.isServed());
}

TEST_F(ServerService, aClientThatConnectsBeforeTheServerAcceptsIsServedThen) {
    listen();
    Peer peer = connect();
    peer.sendHello();
    peer.askForSnapshot();
    onLoop([this] { server_->accept(); });
    EXPECT_TRUE(peer.isServed());
}

TEST_F(ServerService, bytesThatComeOneByOneAreServed) {
    serve();
    Peer peer = connect();
    wire::Frame hello;
    *hello.mutable_hello() = wire::makeHello("slow");
    const std::string bytes = wire::encodeFrame(hello).value();
    for (const char& byte : bytes) {
        peer.sendBytes({&byte, 1});
    }
    EXPECT_TRUE(peer.isServed());
}

TEST_F(ServerService, APongSaysHowUpToDateTheContentIs) {
    settings_.freshness = [] { return Freshness{std::chrono::milliseconds(1500), 3}; };
    serve();
    Peer peer = connect();
    peer.shakeHands();
    peer.ping(5);
    const auto answer = peer.receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->pong().content_age_ms(), 1500U);
    EXPECT_EQ(answer->pong().silent_containers(), 3U);
}

TEST_F(ServerService, framesThatComeTogetherAreAllAnsweredInOrder) {
    serve();
    Peer peer = connect();
    wire::Frame hello;
    *hello.mutable_hello() = wire::makeHello("hasty");
    std::string bytes = wire::encodeFrame(hello).value();
    for (std::uint64_t i = 1; i <= 100; ++i) {
        wire::Frame ping;
        ping.set_request_id(i);
        ping.mutable_ping();
        bytes += wire::encodeFrame(ping).value();
    }
    peer.sendBytes(bytes);
    EXPECT_TRUE(peer.receive()->has_hello());
    for (std::uint64_t i = 1; i <= 100; ++i) {
        const auto answer = peer.receive();
        ASSERT_TRUE(answer && answer->has_pong());
        EXPECT_EQ(answer->request_id(), i);
    }
}

TEST_F(ServerService, aSnapshotCarriesTheNumberOfItsRequestInEveryChunk) {
    std::vector<std::string> names;
    for (int i = 0; i < 1500; ++i) {
        names.push_back("ct" + std::to_string(i));
    }
    publish(names);
    serve();
    Peer peer = connect();
    peer.shakeHands();
    peer.askForSnapshot(42);
    std::vector<std::string> got;
    for (std::uint32_t index = 0; index < 2; ++index) {
        const auto frame = peer.receive();
        ASSERT_TRUE(frame && frame->has_snapshot_chunk());
        EXPECT_EQ(frame->request_id(), 42U);
        EXPECT_EQ(frame->snapshot_chunk().index(), index);
        EXPECT_EQ(frame->snapshot_chunk().last(), index == 1);
        const auto part = namesIn(frame->snapshot_chunk());
        got.insert(got.end(), part.begin(), part.end());
    }
    names.insert(names.begin(), "host");
    EXPECT_EQ(got, names);
}

TEST_F(ServerService, changesFollowASnapshotToThoseWhoTookOne) {
    serve();
    Peer follower = connect();
    follower.shakeHands();
    follower.askForSnapshot();
    const auto snapshot = follower.receive();
    ASSERT_TRUE(snapshot && snapshot->has_snapshot_chunk());
    EXPECT_THAT(namesIn(snapshot->snapshot_chunk()), ElementsAre("host"));
    Peer other = connect();
    other.shakeHands();
    publish({"web"});
    const auto change = follower.receive();
    ASSERT_TRUE(change && change->has_delta());
    EXPECT_EQ(change->request_id(), 0U);
    EXPECT_EQ(change->delta().generation(), snapshot->snapshot_chunk().generation() + 1);
    ASSERT_EQ(change->delta().changed_size(), 1);
    EXPECT_EQ(change->delta().changed(0).configuration().name(), "web");
    other.ping(1);
    EXPECT_TRUE(other.receive()->has_pong()) << "who took no snapshot gets no delta";
}

TEST_F(ServerService, whereNothingDiffersNothingIsSent) {
    publish({"web"});
    serve();
    Peer peer = connect();
    peer.shakeHands();
    peer.askForSnapshot();
    ASSERT_TRUE(peer.receive()->has_snapshot_chunk());
    publish({"web"});
    peer.ping(1);
    EXPECT_TRUE(peer.receive()->has_pong());
}

TEST_F(ServerService, vocabulariesAreAnsweredAndChangesOfThemFollow) {
    vocabularies_ = {Vocabulary{"", {Parameter{"kxversion", "1", {}}}, {}}};
    publish({});
    serve();
    Peer peer = connect();
    peer.shakeHands();
    wire::Frame request;
    request.set_request_id(7);
    request.mutable_vocabulary_request();
    peer.send(request);
    const auto answer = peer.receive();
    ASSERT_TRUE(answer && answer->has_vocabulary_set());
    EXPECT_EQ(answer->request_id(), 7U);
    EXPECT_EQ(answer->vocabulary_set().vocabularies(0).parameters(0).value(), "1");
    vocabularies_[0].parameters[0].value = "2";
    publish({});
    const auto change = peer.receive();
    ASSERT_TRUE(change && change->has_vocabulary_set());
    EXPECT_EQ(change->request_id(), 0U);
    EXPECT_EQ(change->vocabulary_set().vocabularies(0).parameters(0).value(), "2");
}

TEST_F(ServerService, whatItDoesNotKnowItSkips) {
    serve();
    Peer peer = connect();
    peer.shakeHands();
    peer.send(wire::Frame());
    wire::Frame odd;
    odd.mutable_vocabulary_set();
    peer.send(odd);
    peer.sendBytes(std::string("\0\0\0\3\xfa\x7f\0", 7));  // field 2047, a text of no bytes
    EXPECT_TRUE(peer.isServed());
    EXPECT_EQ(logged(), "");
}

TEST_F(ServerService, aSlowReaderGetsALargeSnapshotWhole) {
    std::vector<std::string> names;
    for (int i = 0; i < 2000; ++i) {
        names.push_back("ct" + std::to_string(i));
    }
    publish(names, 4000);
    serve();
    Peer peer = connect();
    peer.shakeHands();
    const int small = 4096;
    ::setsockopt(peer.descriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    peer.askForSnapshot();
    int got = 0;
    while (true) {
        const auto frame = peer.receive();
        ASSERT_TRUE(frame && frame->has_snapshot_chunk());
        got += frame->snapshot_chunk().environments_size();
        if (frame->snapshot_chunk().last()) {
            break;
        }
    }
    EXPECT_EQ(got, 2001);
}

TEST_F(ServerService, aPeerThatLeavesInTheMiddleOfAFrameDisturbsNobody) {
    serve();
    Peer other = connect();
    other.shakeHands();
    {
        Peer leaving = connect();
        leaving.shakeHands();
        leaving.askForSnapshot();
        leaving.sendBytes(std::string("\0\0\1\0half", 8));
    }
    EXPECT_TRUE(other.isServed());
    EXPECT_EQ(logged(), "");
}

TEST_F(ServerService, atTheEndClientsAreToldThatTheAgentGoesAway) {
    serve();
    Peer peer = connect();
    peer.shakeHands();
    stop();
    expectRefusal(peer, wire::ERROR_SHUTTING_DOWN);
    EXPECT_FALSE(std::filesystem::exists(settings_.socketPath));
}

}  // namespace
}  // namespace kx::agent
