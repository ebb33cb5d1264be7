// What happens to a link after it came up: updates, loss, return, and its end.
#include <future>

#include "client/src/loop/Loop.h"
#include "tests/unit/client/LinkFixture.h"

namespace kx::test {
namespace {

using std::chrono::milliseconds;
using Calls = std::vector<std::string>;

class LinkLife : public LinkFixture {
protected:
    explicit LinkLife(const client::Timeouts& timeouts = {}) : LinkFixture(timeouts) {}
    ~LinkLife() override { loop->stop(); }

    bool calledEventually(const Calls& expected) {
        return eventually([&] { return handler->calls() == expected; });
    }
};

TEST_F(LinkLife, FollowsDeltas) {
    ScriptedAgent agent([](PeerSocket& peer) {
        if (serveUntilUp(peer, {wireEnv(1)})) {
            peer.send(deltaFrame(2, {wireEnv(2)}));
            peer.send(deltaFrame(3, {wireEnv(3)}));
            peer.readUntilClosed();
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_TRUE(eventually([&] { return environments() == 3; }));
}

TEST_F(LinkLife, AsksForANewSnapshotWhenADeltaWasMissed) {
    ScriptedAgent agent([](PeerSocket& peer) {
        wire::Frame frame;
        if (serveUntilUp(peer, {wireEnv(1)}) && peer.send(deltaFrame(7, {wireEnv(2)}))) {
            while (peer.read(frame) && !frame.has_snapshot_request()) {
            }
            peer.send(snapshotFrame(7, {wireEnv(1), wireEnv(2), wireEnv(3), wireEnv(4)}));
            peer.readUntilClosed();
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_TRUE(eventually([&] { return environments() == 4; }));
    EXPECT_EQ(handler->calls(), Calls{"connected"});
}

TEST_F(LinkLife, AsksForASignOfLifeWhenItIsTold) {
    ScriptedAgent agent([](PeerSocket& peer) {
        if (serveUntilUp(peer, {})) {
            answerUntilClosed(peer);
        }
    });
    EXPECT_EQ(accessPoint->pingSync(), KXL_ERROR_DISCONNECT) << "not connected";
    ASSERT_EQ(initialize(agent.path()), 0);
    KXLFreshness freshness;
    EXPECT_EQ(accessPoint->pingSync(freshness), 0);
    EXPECT_EQ(freshness.ageMs, 1500);
    EXPECT_EQ(freshness.silentContainers, 2U);
    loop->stop();
    EXPECT_EQ(accessPoint->pingSync(), KXL_ERROR_STOPPED);
}

TEST_F(LinkLife, NoSignOfLifeWithinHalfASecondIsATimeout) {
    ScriptedAgent agent([](PeerSocket& peer) {
        if (serveUntilUp(peer, {})) {
            peer.readUntilClosed();
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_EQ(accessPoint->pingSync(), KXL_ERROR_TIMEOUT);
}

TEST_F(LinkLife, AnswersThePingsOfItsAgentAndAsksForASignOfLife) {
    std::promise<std::uint64_t> ponged;
    std::promise<void> pinged;
    ScriptedAgent agent([&](PeerSocket& peer) {
        if (!serveUntilUp(peer, {})) {
            return;
        }
        wire::Frame ping;
        ping.set_request_id(42);
        ping.mutable_ping();
        peer.send(ping);
        wire::Frame frame;
        while (peer.read(frame)) {
            if (frame.has_ping()) {
                pinged.set_value();
            } else if (frame.has_pong()) {
                ponged.set_value(frame.request_id());
            }
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_EQ(ponged.get_future().get(), 42U);
    pinged.get_future().get();
}

TEST_F(LinkLife, ComesBackByItselfAfterALoss) {
    std::atomic<int> served{0};
    ScriptedAgent agent([&](PeerSocket& peer) {
        const int number = ++served;
        if (serveUntilUp(peer, std::vector<wire::Environment>(static_cast<std::size_t>(number), wireEnv(number))) &&
            number > 1) {
            peer.readUntilClosed();
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_TRUE(calledEventually({"connected", "error -4", "connected"}));
    EXPECT_NE(handler->threadOf(1), std::this_thread::get_id());
    EXPECT_EQ(handler->threadOf(1), handler->threadOf(2));
    EXPECT_EQ(environments(), 2U);
}

TEST_F(LinkLife, KeepsTheCacheWhileTheAgentIsAway) {
    auto agent = std::make_unique<ScriptedAgent>([](PeerSocket& peer) {
        if (serveUntilUp(peer, {wireEnv(1)})) {
            wire::Frame frame;
            peer.read(frame);  // the first ping; then it is gone
        }
    });
    ASSERT_EQ(initialize(agent->path()), 0);
    agent.reset();
    EXPECT_TRUE(calledEventually({"connected", "error -4"}));
    EXPECT_EQ(environments(), 1U);
    EXPECT_FALSE(accessPoint->getVocabulary(accessPoint->getEID())) << "what runs there is not known";
    EXPECT_TRUE(accessPoint->getVocabulary(accessPoint->getEID(), ""));
    EXPECT_TRUE(accessPoint->getVocabulary(accessPoint->getEID(), "KXABasicFunctionality"));
}

TEST_F(LinkLife, TheVocabulariesOfAnEarlierAgentGoWithIt) {
    std::atomic<int> served{0};
    ScriptedAgent agent([&](PeerSocket& peer) {
        if (served++ == 0) {
            serveUntilUp(peer, {});
            return;
        }
        wire::Frame frame;
        peer.read(frame);
        auto hello = helloFrame();
        hello.mutable_hello()->clear_capabilities();
        hello.mutable_hello()->add_capabilities("snapshot");
        peer.send(hello);
        peer.send(snapshotFrame(1, {}));
        peer.readUntilClosed();
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_TRUE(accessPoint->getVocabulary(accessPoint->getEID(), ""));
    EXPECT_TRUE(calledEventually({"connected", "error -4", "connected"}));
    EXPECT_FALSE(accessPoint->getVocabulary(accessPoint->getEID(), ""));
}

TEST_F(LinkLife, AnOrderlyEndOfTheAgentIsNotLogged) {
    ScriptedAgent agent([](PeerSocket& peer) {
        if (serveUntilUp(peer, {})) {
            peer.send(wire::makeErrorFrame(wire::ERROR_SHUTTING_DOWN, "shutting down"));
            peer.readUntilClosed();
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    ASSERT_TRUE(eventually([&] { return handler->calls().size() >= 3; }));
    EXPECT_EQ(handler->calls()[1], "error -4");
    EXPECT_TRUE(LogCollector::lines().empty());
}

TEST_F(LinkLife, AMalformedMessageBreaksTheLinkWithOneLogLine) {
    std::atomic<int> served{0};
    ScriptedAgent agent([&](PeerSocket& peer) {
        const bool first = served++ == 0;
        if (serveUntilUp(peer, {wireEnv(1)})) {
            if (first) {
                peer.sendRaw(std::string("\0\0\0\3\xff\xff\xff", 7));
            }
            peer.readUntilClosed();
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_TRUE(calledEventually({"connected", "error -5", "connected"}));
    EXPECT_EQ(LogCollector::lines().size(), 1U);
}

TEST_F(LinkLife, AMalformedEnvironmentBreaksTheLink) {
    std::atomic<int> served{0};
    ScriptedAgent agent([&](PeerSocket& peer) {
        const bool first = served++ == 0;
        if (serveUntilUp(peer, {wireEnv(1)})) {
            if (first) {
                auto delta = deltaFrame(2, {wireEnv(2)});
                delta.mutable_delta()->mutable_changed(0)->set_eid("short");
                peer.send(delta);
            }
            peer.readUntilClosed();
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_TRUE(calledEventually({"connected", "error -5", "connected"}));
}

// ---- what is delivered when -------------------------------------------------------------------------------------

// A handler that takes its time in handleConnected, as one does that waits for a lock.
class SlowHandler : public RecordingHandler {
public:
    explicit SlowHandler(const ScriptedAgent& agent) : agent_(agent) {}
    void handleConnected() override {
        if (calls().empty()) {
            // By then the first connection is long lost; were its loss delivered now, it would come first.
            reconnected_ = eventually([this] { return agent_.connections() > 1; });
        }
        RecordingHandler::handleConnected();
    }
    bool reconnected() const { return reconnected_; }

private:
    const ScriptedAgent& agent_;
    bool reconnected_ = false;
};

TEST_F(LinkLife, DeliversNothingOfTheLinkBeforeInitializeHasReturned) {
    ScriptedAgent agent([](PeerSocket& peer) { serveUntilUp(peer, {wireEnv(1)}); });
    const boost::intrusive_ptr<SlowHandler> slow(new SlowHandler(agent));
    ASSERT_EQ(initialize(agent.path(), slow), 0);
    EXPECT_TRUE(slow->reconnected()) << "the loop goes on meanwhile";
    EXPECT_TRUE(eventually([&] { return slow->calls().size() >= 3; }));
    const Calls calls = slow->calls();
    EXPECT_EQ(calls[0], "connected");
    EXPECT_EQ(calls[1], "error -4");
    EXPECT_EQ(calls[2], "connected");
    EXPECT_EQ(slow->threadOf(0), std::this_thread::get_id());
}

TEST_F(LinkLife, ACancelledRequestIsLetGoAndNotTakenUpAgain) {
    ScriptedAgent agent([](PeerSocket& peer) {
        if (serveUntilUp(peer, {wireEnv(1)})) {
            peer.readUntilClosed();
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    handler->cancel();
    EXPECT_TRUE(calledEventually({"connected", "error -3"}));
    EXPECT_TRUE(eventually([&] { return handler->referenceCount() == 1; }));
    EXPECT_FALSE(eventually([&] { return agent.connections() > 1; }, milliseconds(300)));
}

TEST_F(LinkLife, AnAccessPointThatIsLetGoClosesItsConnection) {
    std::promise<int> closed;
    ScriptedAgent agent([&](PeerSocket& peer) {
        if (serveUntilUp(peer, {wireEnv(1)})) {
            closed.set_value(peer.readUntilClosed());
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    accessPoint.reset();
    EXPECT_GE(closed.get_future().get(), 0);
    EXPECT_TRUE(eventually([&] { return handler->referenceCount() == 1; }));
    EXPECT_EQ(handler->calls(), Calls{"connected"});
}

TEST_F(LinkLife, DeliversNothingOnceTheLoopHasStopped) {
    ScriptedAgent agent([](PeerSocket& peer) { serveUntilUp(peer, {wireEnv(1)}); });
    ASSERT_EQ(initialize(agent.path()), 0);
    ASSERT_TRUE(eventually([&] { return handler->calls().size() >= 3; }));
    loop->stop();
    const auto calls = handler->calls();
    const int connections = agent.connections();
    EXPECT_FALSE(
        eventually([&] { return handler->calls() != calls || agent.connections() != connections; }, milliseconds(400)));
    EXPECT_EQ(handler->referenceCount(), 1);
}

TEST_F(LinkLife, StoppingTheLoopWaitsForACallbackInProgress) {
    struct Blocking : RecordingHandler {
        void handleError(int code) override {
            entered.set_value();
            go.get_future().get();
            RecordingHandler::handleError(code);
        }
        std::promise<void> entered;
        std::promise<void> go;
    };
    ScriptedAgent agent([](PeerSocket& peer) { serveUntilUp(peer, {}); });
    const boost::intrusive_ptr<Blocking> blocking(new Blocking);
    ASSERT_EQ(initialize(agent.path(), blocking), 0);
    blocking->entered.get_future().get();
    std::thread releaser([&] { blocking->go.set_value(); });
    loop->stop();
    EXPECT_EQ(blocking->calls(), (Calls{"connected", "error -4"}));
    releaser.join();
}

TEST_F(LinkLife, ReadersAreServedFromMemoryWhileTheLinkChanges) {
    ScriptedAgent agent([](PeerSocket& peer) {
        if (serveUntilUp(peer, {wireEnv(1)})) {
            for (std::uint64_t generation = 2; generation < 200; ++generation) {
                peer.send(deltaFrame(generation, {wireEnv(static_cast<int>(generation % 50))}));
                peer.send(vocabularyFrame());
            }
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_TRUE(eventually([&] {
        const auto list = accessPoint->getEnvCache()->getEnvList();
        for (auto it = list.begin(); it != list.end(); ++it) {
            EXPECT_EQ(it->getType(), "lumetra");
        }
        EXPECT_TRUE(accessPoint->getVocabulary(accessPoint->getEID(), "")->readParameter("kxversion"));
        return handler->calls().size() >= 5;
    }));
}

}  // namespace
}  // namespace kx::test
