// What the server refuses: in words to the peer, in one line to the log, and serving the others on.
#include <sys/resource.h>

#include "tests/unit/agent/ServerFixture.h"

namespace kx::agent {
namespace {

using test::Peer;

class ServerRefusal : public test::ServerFixture {
protected:
    static std::string pidText() { return "pid " + std::to_string(::getpid()); }

    /// A length in front of a frame, as it goes onto the wire.
    static std::string header(std::uint32_t length) {
        std::string bytes;
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes += static_cast<char>(length >> shift);
        }
        return bytes;
    }
};

/// Refusals of a first frame, with another client that is served before, meanwhile and after.
class ServerRefusesFirstFrame : public ServerRefusal, public testing::WithParamInterface<std::string> {};

TEST_P(ServerRefusesFirstFrame, thatIsNoHello) {
    serve();
    Peer other = connect();
    other.shakeHands();
    Peer peer = connect();
    peer.sendBytes(GetParam());
    expectRefusal(peer, wire::ERROR_MALFORMED);
    EXPECT_TRUE(other.isServed());
    EXPECT_TRUE([this] {
        Peer late = connect();
        late.shakeHands();
        return late.isServed();
    }());
    expectOneLine({pidText(), "refused"});
}

INSTANTIATE_TEST_SUITE_P(Garbage, ServerRefusesFirstFrame,
                         testing::Values(std::string("\0\0\0\0", 4),                  // an empty frame
                                         std::string("\0\0\0\2\x4a\0", 6),            // a ping
                                         std::string("\0\0\0\4\xff\xff\xff\xff", 8),  // no message
                                         std::string("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"),
                                         std::string("\xff\xff\xff\xff", 4), std::string(64, '\x7f')));

TEST_F(ServerRefusal, anotherMajorVersionIsRefusedWithBothNumbers) {
    serve();
    Peer peer = connect();
    peer.sendHello(2, "newer\nprogram");
    expectRefusal(peer, wire::ERROR_PROTOCOL_VERSION);
    expectOneLine({"version 2", "version 1", pidText(), "uid " + std::to_string(::getuid()), "newer?program"});
}

TEST_F(ServerRefusal, aFrameOverTheLimitIsRefusedBeforeItsContentComes) {
    serve();
    Peer peer = connect();
    peer.shakeHands();
    peer.sendBytes(header(static_cast<std::uint32_t>(settings_.limits.maxRequestBytes + 1)));
    expectRefusal(peer, wire::ERROR_MALFORMED);
    expectOneLine({std::to_string(settings_.limits.maxRequestBytes + 1),
                   std::to_string(settings_.limits.maxRequestBytes), "\"tester\""});
}

TEST_F(ServerRefusal, theReasonReachesAPeerThatIsStillSending) {
    serve();
    Peer peer = connect();
    peer.shakeHands();
    peer.sendBytes(header(static_cast<std::uint32_t>(settings_.limits.maxRequestBytes + 1)) +
                   std::string(8U * 1024 * 1024, 'x'));
    expectRefusal(peer, wire::ERROR_MALFORMED);
    // As much as a socket holds and more than is read at a time: a close with the rest unread would be a reset.
    Peer brief = connect();
    brief.shakeHands();
    brief.sendBytes(header(static_cast<std::uint32_t>(settings_.limits.maxRequestBytes + 1)) +
                    std::string(100000, 'x'));
    expectRefusal(brief, wire::ERROR_MALFORMED);
}

TEST_F(ServerRefusal, aSecondHelloIsRefused) {
    serve();
    Peer peer = connect();
    peer.shakeHands();
    peer.sendHello();
    expectRefusal(peer, wire::ERROR_MALFORMED);
    expectOneLine({"second Hello", "\"tester\""});
}

TEST_F(ServerRefusal, aMalformedFrameAfterTheHandshakeIsRefused) {
    serve();
    Peer peer = connect();
    peer.shakeHands();
    peer.sendBytes(std::string("\0\0\0\1\x0a", 5));
    expectRefusal(peer, wire::ERROR_MALFORMED);
    expectOneLine({"\"tester\""});
}

TEST_F(ServerRefusal, whatFollowsARefusedFrameIsNotAnswered) {
    serve();
    Peer peer = connect();
    wire::Frame ping;
    ping.mutable_ping();
    const std::string bytes = wire::encodeFrame(ping).value();
    peer.sendBytes(bytes + bytes + bytes);
    expectRefusal(peer, wire::ERROR_MALFORMED);
    expectOneLine({"Hello"});
}

TEST_F(ServerRefusal, aPeerThatDoesNotIntroduceItselfIsRefusedInTime) {
    settings_.limits.handshake = std::chrono::milliseconds(50);
    serve();
    Peer silent = connect();
    Peer introduced = connect();
    introduced.shakeHands();
    expectRefusal(silent, wire::ERROR_UNSPECIFIED);
    EXPECT_TRUE(introduced.isServed()) << "the deadline is the handshake's only";
    expectOneLine({pidText(), "50 ms"});
}

TEST_F(ServerRefusal, aPeerThatDoesNotHangUpAfterItsRefusalIsClosed) {
    settings_.limits.farewell = std::chrono::milliseconds(50);
    serve();
    Peer peer = connect();
    peer.sendHello(2);
    expectRefusal(peer, wire::ERROR_PROTOCOL_VERSION);
    pollfd closed{peer.descriptor(), 0, 0};
    EXPECT_EQ(::poll(&closed, 1, 20000), 1);
    EXPECT_TRUE(closed.revents & POLLHUP) << "both directions are closed, not only the server's";
}

TEST_F(ServerRefusal, oneConnectionTooManyIsRefusedAndAFreePlaceIsGivenAway) {
    serve();
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 256; ++i) {
        peers.push_back(std::make_unique<Peer>(settings_.socketPath));
        peers.back()->shakeHands();
    }
    Peer late = connect();
    expectRefusal(late, wire::ERROR_TOO_MANY_CONNECTIONS);
    EXPECT_TRUE(peers.front()->isServed());
    expectOneLine({"256", pidText()});
    peers.pop_back();
    bool served = false;
    const auto deadline = std::chrono::steady_clock::now() + test::kPatience;
    while (!served && std::chrono::steady_clock::now() < deadline) {
        Peer next = connect();
        next.sendHello();
        const auto answer = next.receive();
        served = answer && answer->has_hello();
    }
    EXPECT_TRUE(served);
}

TEST_F(ServerRefusal, refusedPeersThatLingerTakeNoPlaceAndAreBounded) {
    settings_.limits.maxConnections = 1;
    settings_.limits.maxFarewells = 4;
    settings_.limits.farewell = std::chrono::hours(1);
    serve();
    Peer first = connect();
    first.shakeHands();
    std::vector<std::unique_ptr<Peer>> refused;
    for (int i = 0; i < 20; ++i) {
        refused.push_back(std::make_unique<Peer>(settings_.socketPath));
        const auto frame = refused.back()->receive();
        ASSERT_TRUE(frame && frame->has_error()) << "the last ones too are told why";
    }
    // The close of the last one may still be on its way when the reason has arrived.
    const auto held = [&refused] {
        return std::count_if(refused.begin(), refused.end(), [](const auto& peer) {
            pollfd closed{peer->descriptor(), 0, 0};
            return ::poll(&closed, 1, 0) == 0;
        });
    };
    EXPECT_TRUE(test::eventually([&] { return held() <= 4; }));
    EXPECT_EQ(held(), 4);
    EXPECT_TRUE(first.isServed());
}

TEST_F(ServerRefusal, aPeerThatAsksForSnapshotsWithoutReadingThemIsRefusedAndTheOthersAreServedOn) {
    publish({"a", "b", "c"}, 100000);
    serve();
    Peer other = connect();
    other.shakeHands();
    Peer deaf = connect();
    deaf.shakeHands();
    for (int i = 0; i < 20; ++i) {
        deaf.askForSnapshot();
    }
    pollfd closed{deaf.descriptor(), 0, 0};
    EXPECT_EQ(::poll(&closed, 1, 20000), 1) << "still connected";
    EXPECT_TRUE(other.isServed());
    expectOneLine({"\"tester\"", pidText(), "refused", "asks for snapshots without taking them"});
}

TEST_F(ServerRefusal, aPeerThatReadsNoSmallAnswersIsDroppedTooBeforeTheyTakeTheMemory) {
    settings_.limits.maxUnsentBytes = 1024 * 1024;
    serve();
    Peer deaf = connect();
    deaf.shakeHands();
    wire::Frame ping;
    ping.mutable_ping();
    std::string pings;
    for (int i = 0; i < 100; ++i) {
        pings += wire::encodeFrame(ping).value();
    }
    pollfd closed{deaf.descriptor(), 0, 0};
    int sent = 0;
    while (::poll(&closed, 1, 0) == 0 && sent < 100000) {
        deaf.sendBytes(pings);
        sent += 100;
    }
    EXPECT_EQ(::poll(&closed, 1, 20000), 1) << "still connected";
    expectOneLine({"dropped"});
}

TEST_F(ServerRefusal, aDroppedFollowerOfChangesDoesNotHoldUpTheOthers) {
    settings_.limits.maxUnsentBytes = 1024 * 1024;
    serve();
    Peer deaf = connect();
    deaf.shakeHands();
    deaf.askForSnapshot();
    Peer other = connect();
    other.shakeHands();
    other.askForSnapshot();
    ASSERT_TRUE(other.receive()->has_snapshot_chunk());
    for (std::size_t i = 1; i <= 20; ++i) {
        publish({"a"}, 100000 + i);
        const auto change = other.receive();
        ASSERT_TRUE(change && change->has_delta());
    }
    expectOneLine({"dropped"});
}

// The accept fails again and again for as long as descriptors are short; the log must not be filled with it.
TEST_F(ServerRefusal, aLackOfDescriptorsIsLoggedOnceAndGotOver) {
    settings_.limits.acceptPause = std::chrono::milliseconds(1);
    serve();
    Peer first = connect();
    first.shakeHands();
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    for (int round = 0; round < 2; ++round) {
        {
            // The client's own end is there before the limit, so that only the server finds no descriptor free.
            OwnedDescriptor lowest(::dup(0));
            OwnedDescriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            settings_.socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
            rlimit tight = former;
            tight.rlim_cur = static_cast<rlim_t>(lowest.get());
            ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
            const int connected = ::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
            // Long enough for many tries to accept.
            const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
            bool served = true;
            while (served && std::chrono::steady_clock::now() < end) {
                served = first.isServed();
            }
            ::setrlimit(RLIMIT_NOFILE, &former);
            EXPECT_EQ(connected, 0);
            EXPECT_TRUE(served);
        }
        Peer late = connect();
        late.shakeHands();
        EXPECT_TRUE(late.isServed());
    }
    const std::string log = logged();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << "once each time it begins: " << log;
    EXPECT_THAT(log, testing::HasSubstr("cannot accept"));
}

// ---- requests that take more memory than they should ----

TEST_F(ServerRefusal, aFrameOfMoreFieldsThanAnyRequestHasIsRefusedBeforeItIsParsed) {
    serve();
    Peer peer = connect();
    peer.shakeHands();
    wire::Frame frame;
    for (std::size_t i = 0; i <= settings_.limits.maxRequestFields; ++i) {
        frame.mutable_counter_query()->add_eids("");
    }
    peer.send(frame);
    expectRefusal(peer, wire::ERROR_MALFORMED);
    expectOneLine({"refused", "more than 70000 fields"});
}

TEST(AccessPolicy, admitsRootItsOwnUserAndTheGroupOnly) {
    const AccessPolicy policy{gid_t{77}, uid_t{500}};
    EXPECT_TRUE(policy.admits({1, 0, 0, {}, ""}));
    EXPECT_TRUE(policy.admits({1, 500, 1, {}, ""}));
    EXPECT_TRUE(policy.admits({1, 501, 77, {}, ""}));
    EXPECT_TRUE(policy.admits({1, 501, 1, {5, 77}, ""}));
    EXPECT_FALSE(policy.admits({1, 501, 1, {5, 6}, ""}));
    EXPECT_FALSE(policy.admits({1, 501, 0, {0}, ""})) << "root's group is not root";
}

TEST(AccessPolicy, whereTheGroupIsMissingOnlyUsersCount) {
    const AccessPolicy policy{std::nullopt, uid_t{0}};
    EXPECT_TRUE(policy.admits({1, 0, 0, {}, ""}));
    EXPECT_FALSE(policy.admits({1, 501, 77, {77}, ""}));
}

TEST(PeerIdentity, isTheKernelsWordAboutTheOtherEnd) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const OwnedDescriptor one(ends[0]);
    const OwnedDescriptor other(ends[1]);
    const auto peer = identifyPeer(one.get());
    ASSERT_TRUE(peer);
    EXPECT_EQ(peer->pid, ::getpid());
    EXPECT_EQ(peer->uid, ::geteuid());
    EXPECT_EQ(peer->gid, ::getegid());
    const int count = ::getgroups(0, nullptr);
    EXPECT_EQ(peer->groups.size(), static_cast<std::size_t>(count));
    EXPECT_THAT(peer->describe(), testing::HasSubstr("test_agent")) << "without a name of its own, its process's";
}

}  // namespace
}  // namespace kx::agent
