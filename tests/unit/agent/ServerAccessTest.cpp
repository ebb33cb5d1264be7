// Refusals that need a peer of another kind: one with fewer rights, and one that never stops sending.
#include <sys/stat.h>
#include <sys/wait.h>

#include "tests/unit/agent/ServerFixture.h"

namespace kx::agent {
namespace {

using test::Peer;

constexpr uid_t kNobody = 65534;

class ServerAccess : public test::ServerFixture {};

/// Connects in a child process with the rights of nobody.
/// @return what it got: 'r' for a refusal as one who has no right
char connectAsNobody(const std::string& path) {
    int ends[2];
    if (::pipe(ends) != 0) {
        return 'p';
    }
    const pid_t child = ::fork();
    if (child == 0) {
        char got = 'x';
        if (::setgid(kNobody) == 0 && ::setuid(kNobody) == 0) {
            Peer peer(path);
            const auto frame = peer.receive();
            const bool refused = frame && frame->error().code() == wire::ERROR_NOT_ALLOWED && !peer.receive();
            got = refused && peer.endedInOrder() ? 'r' : '?';
        }
        ::_exit(::write(ends[1], &got, 1) == 1 ? 0 : 1);
    }
    ::close(ends[1]);
    char got = '-';
    if (::read(ends[0], &got, 1) != 1) {
        got = 'e';
    }
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return got;
}

TEST_F(ServerAccess, aPeerWithoutTheRightIsRefusedEvenWhereTheFileLetsItIn) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to become somebody else";
    }
    serve();
    ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(settings_.socketPath.c_str(), 0666), 0);
    EXPECT_EQ(connectAsNobody(settings_.socketPath), 'r');
    Peer other = connect();
    other.shakeHands();
    EXPECT_TRUE(other.isServed());
    expectOneLine({"uid " + std::to_string(kNobody), "neither root", kAgentGroup});
}

TEST_F(ServerAccess, aPeerThatNeverStopsSendingIsClosedAllTheSame) {
    settings_.limits.farewell = std::chrono::milliseconds(50);
    serve();
    Peer peer = connect();
    peer.sendBytes(std::string(4, '\0'));
    const std::string more(1000, 'x');
    const auto deadline = std::chrono::steady_clock::now() + test::kPatience;
    while (::send(peer.descriptor(), more.data(), more.size(), MSG_NOSIGNAL) > 0) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "still connected";
    }
    expectOneLine({"Hello"});
}

TEST_F(ServerAccess, aPeerThatWasServedBeforeAndDoesNotHangUpIsClosedToo) {
    settings_.limits.handshake = std::chrono::hours(1);
    settings_.limits.farewell = std::chrono::milliseconds(50);
    serve();
    Peer peer = connect();
    peer.shakeHands();
    peer.sendHello();
    expectRefusal(peer, wire::ERROR_MALFORMED);
    pollfd closed{peer.descriptor(), 0, 0};
    EXPECT_EQ(::poll(&closed, 1, static_cast<int>(std::chrono::milliseconds(test::kPatience).count())), 1);
    EXPECT_TRUE(closed.revents & POLLHUP) << "both directions are closed, not only the server's";
}

TEST_F(ServerAccess, aFrameOfExactlyTheLimitIsTaken) {
    serve();
    Peer peer = connect();
    peer.shakeHands();
    wire::Frame ping;
    ping.set_request_id(8);
    ping.mutable_ping();
    std::string payload = ping.SerializeAsString();
    // The rest is one field that nobody knows: its tag, its length in four bytes, and that many bytes.
    const std::size_t limit = settings_.limits.maxRequestBytes;
    const std::size_t rest = limit - payload.size() - 2 - 4;
    payload += "\xfa\x07";
    for (std::size_t i = 0; i < 4; ++i) {
        payload += static_cast<char>(((rest >> (7 * i)) & 0x7fU) | (i < 3 ? 0x80U : 0U));
    }
    payload.append(rest, 'x');
    std::string header;
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        header += static_cast<char>((limit >> shift) & 0xffU);
    }
    peer.sendBytes(header + payload);
    const auto answer = peer.receive();
    ASSERT_TRUE(answer && answer->has_pong());
    EXPECT_EQ(answer->request_id(), 8U);
}

// ---- a socket that is removed ----

TEST_F(ServerAccess, aSocketThatIsRemovedIsMadeAnewAndClientsStayConnected) {
    settings_.limits.socketCheck = std::chrono::milliseconds(5);
    serve();
    Peer before = connect();
    before.shakeHands();
    std::filesystem::remove(settings_.socketPath);
    ASSERT_TRUE(test::eventually([&] { return std::filesystem::exists(settings_.socketPath); }));
    ASSERT_TRUE(test::eventually([&] {
        try {
            Peer after = connect();
            return true;
        } catch (const std::exception&) {
            return false;
        }
    }));
    Peer after = connect();
    after.shakeHands();
    EXPECT_TRUE(after.isServed());
    EXPECT_TRUE(before.isServed());
    expectOneLine({settings_.socketPath, "was removed: made it anew"});
}

}  // namespace
}  // namespace kx::agent
