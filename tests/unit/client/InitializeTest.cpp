// The first initialisation of an access point: what it waits for, what it delivers where, how it fails.
#include <algorithm>
#include <atomic>
#include <future>
#include <utility>

#include "client/src/loop/Loop.h"
#include "tests/unit/client/LinkFixture.h"

namespace kx::test {
namespace {

using std::chrono::milliseconds;
using Calls = std::vector<std::string>;

constexpr milliseconds kPromise{500};

/// Room above it for a loaded machine; a lost deadline would take far longer.
constexpr milliseconds kSlack{2000};

/// What does not wait out the half second is done by then, the best of several times.
constexpr milliseconds kAtOnce{250};
constexpr int kTries = 5;

class Initialize : public LinkFixture {
protected:
    /// Tries anew with an access point that has not been kept waiting before.
    void startAnew() {
        accessPoint = KXLAccessPointPrototype::createInstance(
            KXLAccessAgentPrototype::createInstance(nullptr, loop, nullptr), nullptr);
        handler.reset(new RecordingHandler);
    }
};

TEST_F(Initialize, FillsCacheAndVocabulariesAndDeliversOnTheCallersThread) {
    ScriptedAgent agent([](PeerSocket& peer) {
        if (serveUntilUp(peer, {wireEnv(1), wireEnv(2)})) {
            peer.readUntilClosed();
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_EQ(handler->calls(), Calls{"connected"});
    EXPECT_EQ(handler->threadOf(0), std::this_thread::get_id());
    EXPECT_EQ(environments(), 2U);
    EXPECT_EQ(accessPoint->getEID().toString(), "5e5e5e5e-5e5e-5e5e-5e5e-5e5e5e5e5e5e");
    EXPECT_TRUE(accessPoint->getVocabulary(accessPoint->getEID()));
    EXPECT_TRUE(accessPoint->getVocabulary(accessPoint->getEID(), "KXABasicFunctionality"));
    EXPECT_FALSE(accessPoint->getVocabulary(accessPoint->getEID(), "unknown"));
    EXPECT_FALSE(accessPoint->getVocabulary(KXLEID::EID_INVALID));
    EXPECT_EQ(handler->getConnection()->getPeerName(), "scripted agent");
    loop->stop();
}

TEST_F(Initialize, ReadsFramesThatArriveByteByByte) {
    ScriptedAgent agent([](PeerSocket& peer) {
        wire::Frame frame;
        peer.read(frame);
        peer.sendInSingleBytes(helloFrame());
        peer.sendInSingleBytes(snapshotFrame(1, {wireEnv(1)}));
        peer.sendInSingleBytes(vocabularyFrame());
        peer.readUntilClosed();
    });
    EXPECT_EQ(initialize(agent.path()), 0);
    EXPECT_EQ(environments(), 1U);
    loop->stop();
}

TEST_F(Initialize, FailsAtOnceWhenThereIsNoAgent) {
    milliseconds least = milliseconds::max();
    for (int round = 0; round < kTries && least >= kAtOnce; ++round) {
        startAnew();
        EXPECT_EQ(initialize("/nonexistent/agent.sock"), KXL_ERROR_DISCONNECT);
        EXPECT_EQ(handler->calls(), Calls{"error -4"});
        EXPECT_EQ(handler->threadOf(0), std::this_thread::get_id());
        EXPECT_EQ(environments(), 0U);
        EXPECT_EQ(accessPoint->getEID(), KXLEID::EID_INVALID);
        least = std::min(least, took);
    }
    EXPECT_LT(least, kAtOnce);
}

TEST_F(Initialize, FailsForAPathLongerThanASocketsMayBe) {
    EXPECT_EQ(initialize("/" + std::string(200, 'x')), KXL_ERROR_DISCONNECT);
}

TEST_F(Initialize, FailsForATransportThatIsNotThere) {
    KXLConnectionInfo info;
    info.connectivity.setType("CarrierPigeon");
    EXPECT_EQ(accessPoint->initializeSync(info, handler, 0), KXL_ERROR_NO_TRANSPORT);
    EXPECT_EQ(handler->calls(), Calls{"error -6"});
}

TEST_F(Initialize, GivesASilentAgentItsHalfSecondAndNoMore) {
    ScriptedAgent agent([](PeerSocket& peer) { peer.readUntilClosed(); });
    EXPECT_EQ(initialize(agent.path()), KXL_ERROR_TIMEOUT);
    EXPECT_GE(took, kPromise);
    EXPECT_LT(took, kPromise + kSlack);
    EXPECT_EQ(handler->calls(), Calls{"error -2"});
}

TEST_F(Initialize, CountsHandshakeAndDataTogether) {
    std::promise<void> end;
    // An agent that needs most of the time for its greeting, and says nothing of vocabularies.
    ScriptedAgent agent([ended = end.get_future().share()](PeerSocket& peer) {
        wire::Frame frame;
        peer.read(frame);
        ended.wait_for(kPromise * 9 / 10);
        peer.send(helloFrame());
        peer.send(snapshotFrame(1, {wireEnv(1)}));
        peer.readUntilClosed();
    });
    milliseconds least = milliseconds::max();
    for (int round = 0; round < kTries && least >= kPromise + kAtOnce; ++round) {
        startAnew();
        EXPECT_EQ(initialize(agent.path()), KXL_ERROR_TIMEOUT);
        EXPECT_EQ(environments(), 0U) << "a failed initialisation publishes nothing";
        least = std::min(least, took);
    }
    EXPECT_LT(least, kPromise + kAtOnce);
    end.set_value();
}

TEST_F(Initialize, FailsAtOnceAfterASilentAgent) {
    ScriptedAgent agent([](PeerSocket& peer) { peer.readUntilClosed(); });
    initialize(agent.path());
    milliseconds all{0};
    for (int followUps = 0; followUps < 30; ++followUps) {  // as many as one request may need
        EXPECT_EQ(initialize(agent.path()), KXL_ERROR_TIMEOUT);
        all += took;
    }
    EXPECT_LT(all, kAtOnce);
    EXPECT_EQ(agent.connections(), 1) << "the agent is left in peace";
    EXPECT_TRUE(eventually([&] { return handler->referenceCount() == 1; })) << "each handler is dropped";
}

TEST_F(Initialize, TriesNothingInTheBackgroundAfterAFailure) {
    ScriptedAgent agent([](PeerSocket& peer) {
        wire::Frame frame;
        peer.read(frame);  // and closes
    });
    EXPECT_EQ(initialize(agent.path()), KXL_ERROR_DISCONNECT);
    EXPECT_EQ(handler->referenceCount(), 1) << "the handler is dropped";
    EXPECT_FALSE(eventually([&] { return agent.connections() > 1 || handler->calls().size() > 1; }, milliseconds(400)));
}

TEST_F(Initialize, SucceedsAfterEarlierFailures) {
    initialize("/nonexistent/agent.sock");
    ScriptedAgent agent([](PeerSocket& peer) {
        if (serveUntilUp(peer, {wireEnv(1)})) {
            peer.readUntilClosed();
        }
    });
    const boost::intrusive_ptr<RecordingHandler> second(new RecordingHandler);
    EXPECT_EQ(initialize(agent.path(), second), 0);
    EXPECT_EQ(second->calls(), Calls{"connected"});
    EXPECT_EQ(handler->calls(), Calls{"error -4"});
    loop->stop();
}

TEST_F(Initialize, WaitsForNothingOnTheLoopThread) {
    std::promise<int> result;
    loop->loop()->post([&] { result.set_value(initialize("/nonexistent/agent.sock")); });
    EXPECT_EQ(result.get_future().get(), KXL_ERROR_STOPPED);
    EXPECT_EQ(handler->calls(), Calls{"error -8"});
}

TEST_F(Initialize, FailsOnceTheLoopHasStopped) {
    loop->stop();
    EXPECT_EQ(initialize("/nonexistent/agent.sock"), KXL_ERROR_STOPPED);
    EXPECT_EQ(handler->calls(), Calls{"error -8"});
}

TEST_F(Initialize, DoesWithoutVocabulariesWhereTheAgentOffersNone) {
    ScriptedAgent agent([](PeerSocket& peer) {
        wire::Frame frame;
        peer.read(frame);
        auto hello = helloFrame();
        hello.mutable_hello()->clear_capabilities();
        hello.mutable_hello()->add_capabilities("snapshot");
        peer.send(hello);
        peer.send(snapshotFrame(1, {wireEnv(1)}));
        peer.readUntilClosed();
    });
    EXPECT_EQ(initialize(agent.path()), 0);
    EXPECT_EQ(environments(), 1U);
    EXPECT_FALSE(accessPoint->getVocabulary(accessPoint->getEID()));
    loop->stop();
}

// ---- an agent whose data take longer than a caller may wait ---------------------------------------------------

/// Deadlines that are over soon.
client::Timeouts quickTimeouts() {
    client::Timeouts timeouts;
    timeouts.synchronous = milliseconds(50);
    timeouts.silence = milliseconds(60);
    return timeouts;
}

class SlowAgents : public LinkFixture {
protected:
    explicit SlowAgents(client::Timeouts timeouts = quickTimeouts()) : LinkFixture(timeouts) {}
    ~SlowAgents() override {
        loop->stop();
        release();
    }

    /// Greets, and sends the rest when it is released.
    ScriptedAgent::Script slowAgent() {
        return [this, released = released_.get_future().share()](PeerSocket& peer) {
            wire::Frame frame;
            if (peer.read(frame) && peer.send(helloFrame())) {
                released.wait_for(kPatience);
                peer.send(snapshotFrame(1, {wireEnv(1)}));
                peer.send(vocabularyFrame());
                peer.readUntilClosed();
            }
            ++ended_;
        };
    }
    void release() {
        if (!std::exchange(isReleased_, true)) {
            released_.set_value();
        }
    }
    /// @return whether the connection is over
    bool ends() {
        return eventually([this] { return ended_ > 0; });
    }

    std::promise<void> released_;
    std::atomic<int> ended_{0};
    bool isReleased_ = false;
};

TEST_F(SlowAgents, AreNotAskedAnewByTheNextCaller) {
    ScriptedAgent agent(slowAgent());
    ASSERT_EQ(initialize(agent.path()), KXL_ERROR_TIMEOUT);
    EXPECT_EQ(handler->calls(), Calls{"error -2"});
    EXPECT_TRUE(eventually([&] { return handler->referenceCount() == 1; })) << "the handler is dropped";
    release();
    const boost::intrusive_ptr<RecordingHandler> second(new RecordingHandler);
    EXPECT_TRUE(eventually([&] { return initialize(agent.path(), second) == 0; }));
    EXPECT_EQ(agent.connections(), 1);
    EXPECT_EQ(environments(), 1U);
    EXPECT_TRUE(accessPoint->getVocabulary(accessPoint->getEID()));
    EXPECT_EQ(second->calls().back(), "connected");
    EXPECT_EQ(second->getConnection()->getPeerName(), "scripted agent");
    EXPECT_EQ(handler->calls(), Calls{"error -2"}) << "and hears nothing any more";
}

TEST_F(SlowAgents, PublishNothingBeforeTheyAreTakenOver) {
    ScriptedAgent agent(slowAgent());
    ASSERT_EQ(initialize(agent.path()), KXL_ERROR_TIMEOUT);
    release();
    EXPECT_FALSE(eventually([&] { return environments() != 0 || accessPoint->getEID() != KXLEID::EID_INVALID; },
                            milliseconds(100)));
    EXPECT_FALSE(accessPoint->getVocabulary(accessPoint->getEID(), ""));
}

TEST_F(SlowAgents, AreStartedAnewElsewhere) {
    ScriptedAgent agent(slowAgent());
    ASSERT_EQ(initialize(agent.path()), KXL_ERROR_TIMEOUT);
    ScriptedAgent other([](PeerSocket& peer) {
        serveUntilUp(peer, {wireEnv(1), wireEnv(2)}) && peer.readUntilClosed();
    });
    EXPECT_TRUE(eventually([&] { return initialize(other.path()) == 0; }));
    EXPECT_EQ(environments(), 2U);
    release();
}

class ReadyAgents : public SlowAgents {
protected:
    static client::Timeouts patient() {
        auto timeouts = quickTimeouts();
        timeouts.silence = std::chrono::hours(1);
        return timeouts;
    }
    ReadyAgents() : SlowAgents(patient()) {}
};

TEST_F(ReadyAgents, AreTakenOverThoughNobodyWaitsForASilentAgent) {
    ScriptedAgent agent(slowAgent());
    ASSERT_EQ(initialize(agent.path()), KXL_ERROR_TIMEOUT);
    EXPECT_EQ(initialize(agent.path()), KXL_ERROR_TIMEOUT);
    release();
    EXPECT_TRUE(eventually([&] { return initialize(agent.path()) == 0; }));
    EXPECT_EQ(environments(), 1U);
}

class SilentAgents : public SlowAgents {};

TEST_F(SilentAgents, AreTriedOnAnotherConnectionByTheNextCaller) {
    std::atomic<int> served{0};
    ScriptedAgent agent([&](PeerSocket& peer) {
        if (served++ == 0) {
            peer.readUntilClosed();
        } else {
            serveUntilUp(peer, {wireEnv(1)}) && peer.readUntilClosed();
        }
    });
    ASSERT_EQ(initialize(agent.path()), KXL_ERROR_TIMEOUT);
    EXPECT_TRUE(eventually([&] { return initialize(agent.path()) == 0; }));
}

class ForgottenAgents : public SlowAgents {
protected:
    static client::Timeouts briefly() {
        auto timeouts = quickTimeouts();
        timeouts.adoption = milliseconds(20);
        return timeouts;
    }
    ForgottenAgents() : SlowAgents(briefly()) {}
};

TEST_F(ForgottenAgents, AreLetGoWhenNobodyComesForThem) {
    ScriptedAgent agent(slowAgent());
    ASSERT_EQ(initialize(agent.path()), KXL_ERROR_TIMEOUT);
    release();
    EXPECT_TRUE(ends());
    EXPECT_EQ(agent.connections(), 1) << "nothing is tried in the background";
}

// ---- an agent that cannot be understood ---------------------------------------------------------------------

class RefusingAgents : public Initialize {
protected:
    /// An agent that answers the handshake with these bytes.
    void expectFailure(const std::string& answer, int code, const std::string& logged) {
        {
            ScriptedAgent agent([&answer](PeerSocket& peer) {
                wire::Frame frame;
                peer.read(frame);
                peer.sendRaw(answer);
                peer.readUntilClosed();
            });
            EXPECT_EQ(initialize(agent.path()), code);
        }
        ASSERT_EQ(LogCollector::lines().size(), 1U) << logged;
        EXPECT_NE(LogCollector::lines()[0].find(logged), std::string::npos) << LogCollector::lines()[0];
        EXPECT_NE(LogCollector::lines()[0].find("agent.sock"), std::string::npos) << LogCollector::lines()[0];
    }
};

TEST_F(RefusingAgents, AnotherMajorVersionIsNamed) {
    auto hello = helloFrame();
    hello.mutable_hello()->set_protocol_major(9);
    expectFailure(wire::encodeFrame(hello).value(), KXL_ERROR_BROKEN, "protocol version 9");
}

TEST_F(RefusingAgents, AnAgentWithoutAnIdentifierIsRefused) {
    auto hello = helloFrame();
    hello.mutable_hello()->set_server_eid("short");
    expectFailure(wire::encodeFrame(hello).value(), KXL_ERROR_BROKEN, "not 16 bytes");
}

TEST_F(RefusingAgents, AnAgentThatDoesNotOfferItsEnvironmentsIsRefused) {
    auto hello = helloFrame();
    hello.mutable_hello()->clear_capabilities();
    expectFailure(wire::encodeFrame(hello).value(), KXL_ERROR_BROKEN, "does not offer");
}

TEST_F(RefusingAgents, AnOversizeFrameIsRefusedBeforeItIsReceived) {
    expectFailure("\xff\xff\xff\xff", KXL_ERROR_BROKEN, "over the limit");
}

TEST_F(RefusingAgents, GarbageIsRefused) {
    expectFailure(std::string("\0\0\0\3\xff\xff\xff", 7), KXL_ERROR_BROKEN, "not a message");
}

TEST_F(RefusingAgents, DataBeforeTheHandshakeIsRefused) {
    expectFailure(wire::encodeFrame(snapshotFrame(1, {})).value(), KXL_ERROR_BROKEN, "handshake");
}

TEST_F(RefusingAgents, TheAgentsOwnWordsAreLoggedFitForALog) {
    expectFailure(wire::encodeFrame(wire::makeErrorFrame(wire::ERROR_NOT_ALLOWED, "not\nyou")).value(),
                  KXL_ERROR_REFUSED, "not?you");
    EXPECT_EQ(handler->calls(), Calls{"error -7"});
}

TEST_F(RefusingAgents, AFailureThatRepeatsItselfIsLoggedOnce) {
    ScriptedAgent agent([](PeerSocket& peer) {
        wire::Frame frame;
        peer.read(frame);
        peer.send(wire::makeErrorFrame(wire::ERROR_NOT_ALLOWED, "not you"));
        peer.readUntilClosed();
    });
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(initialize(agent.path()), KXL_ERROR_REFUSED);
    }
    EXPECT_EQ(LogCollector::lines().size(), 1U);
}

TEST_F(RefusingAgents, AFrameCutShortIsALostConnection) {
    ScriptedAgent agent([](PeerSocket& peer) {
        wire::Frame frame;
        peer.read(frame);
        const std::string hello = wire::encodeFrame(helloFrame()).value();
        peer.sendRaw(hello.substr(0, hello.size() / 2));
    });
    EXPECT_EQ(initialize(agent.path()), KXL_ERROR_DISCONNECT);
    EXPECT_EQ(handler->calls(), Calls{"error -4"});
}

}  // namespace
}  // namespace kx::test
