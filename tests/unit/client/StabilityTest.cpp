// Links that are not stable: agents that hang, break again and again, or send without measure.
#include <atomic>
#include <future>

#include "tests/unit/client/LinkFixture.h"

namespace kx::test {
namespace {

using std::chrono::milliseconds;
using Calls = std::vector<std::string>;

class UnstableLink : public LinkFixture {
protected:
    explicit UnstableLink(const client::Timeouts& timeouts = {}) : LinkFixture(timeouts) {}
    ~UnstableLink() override { loop->stop(); }

    bool calledEventually(const Calls& expected) {
        return eventually([&] { return handler->calls() == expected; });
    }
};

// ---- signs of life, and pauses ---------------------------------------------------------------------------------

/// Sends what is no message, once the client has been answered so many pings.
ScriptedAgent::Script breakingAfter(int pings) {
    return [pings](PeerSocket& peer) {
        if (!serveUntilUp(peer, {})) {
            return;
        }
        wire::Frame frame;
        for (int answered = 0; answered < pings && peer.read(frame);) {
            if (frame.has_ping()) {
                frame.mutable_pong();
                peer.send(frame);
                ++answered;
            }
        }
        peer.sendRaw(std::string("\0\0\0\3\xff\xff\xff", 7));
        peer.readUntilClosed();
    };
}

class ImpatientLink : public UnstableLink {
protected:
    static client::Timeouts impatient() {
        client::Timeouts timeouts;
        timeouts.keepAlive = milliseconds(50);
        timeouts.stable = milliseconds(20);
        timeouts.reconnect = milliseconds(50);
        timeouts.backoffFirst = milliseconds(1);
        return timeouts;
    }
    explicit ImpatientLink(const client::Timeouts& timeouts = impatient()) : UnstableLink(timeouts) {}
};

TEST_F(ImpatientLink, NoticesAnAgentThatHangs) {
    ScriptedAgent agent([](PeerSocket& peer) { serveUntilUp(peer, {}) && peer.readUntilClosed(); });
    ASSERT_EQ(initialize(agent.path()), 0);
    ASSERT_TRUE(eventually([&] { return handler->calls().size() >= 3; }));
    EXPECT_EQ(handler->calls()[1], "error -2");
    EXPECT_EQ(handler->calls()[2], "connected");
}

TEST_F(ImpatientLink, EndsAReconnectionToAMuteAgent) {
    std::atomic<int> served{0};
    ScriptedAgent agent([&](PeerSocket& peer) {
        const int number = served++;
        if (number == 1) {
            peer.readUntilClosed();
        } else if (serveUntilUp(peer, {}) && number > 1) {
            answerUntilClosed(peer);
        }
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_TRUE(calledEventually({"connected", "error -4", "connected"}));
}

TEST_F(ImpatientLink, GivesALargeHostThatSendsOnAllItsTime) {
    std::atomic<int> served{0};
    ScriptedAgent agent([&](PeerSocket& peer) {
        if (served++ == 0) {
            serveUntilUp(peer, {});
            return;
        }
        wire::Frame request;
        if (!shakeHands(peer, request) || !peer.send(vocabularyFrame())) {
            return;
        }
        // Together longer than a reconnection may be silent, each part for itself not.
        for (std::uint32_t index = 0; index < 10; ++index) {
            auto chunk = snapshotFrame(1, {wireEnv(static_cast<int>(index))});
            chunk.mutable_snapshot_chunk()->set_index(index);
            chunk.mutable_snapshot_chunk()->set_last(index == 9);
            peer.send(chunk);
            std::promise<void>().get_future().wait_for(milliseconds(10));
        }
        answerUntilClosed(peer);
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_TRUE(eventually([&] { return environments() == 10; }));
}

TEST_F(ImpatientLink, LogsTheSameFaultAgainOnceTheLinkWasStable) {
    ScriptedAgent agent(breakingAfter(3));
    ASSERT_EQ(initialize(agent.path()), 0);
    ASSERT_TRUE(eventually([&] { return LogCollector::lines().size() > 1; }));
    EXPECT_EQ(LogCollector::lines()[0], LogCollector::lines()[1]);
}

TEST_F(ImpatientLink, StartsItsPausesOverOnceItWasStable) {
    constexpr int failures = 11;  // pauses of 1, 2, 4 ms and so on; the next would be longer than a second and a half
    std::atomic<bool> isAgain{false};
    std::atomic<int> served{0};
    ScriptedAgent agent([&](PeerSocket& peer) {
        const int number = served++;
        if (!serveUntilUp(peer, {}) || number < failures) {
            return;
        }
        wire::Frame frame;
        for (int pings = 0; pings < 3 && peer.read(frame); ++pings) {
            frame.mutable_pong();
            peer.send(frame);
        }
        isAgain = number > failures;
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    ASSERT_TRUE(eventually([&] { return served > failures; }));
    EXPECT_TRUE(eventually([&] { return isAgain.load(); }, milliseconds(1500)));
}

class DampedLink : public UnstableLink {
protected:
    static client::Timeouts damped() {
        client::Timeouts timeouts;
        timeouts.backoffFirst = milliseconds(40);
        return timeouts;
    }
    DampedLink() : UnstableLink(damped()) {}
};

TEST_F(DampedLink, ReconnectsEverMoreSeldomAndLogsOnceWhereTheAgentBreaksRightAway) {
    ScriptedAgent agent(breakingAfter(0));
    ASSERT_EQ(initialize(agent.path()), 0);
    // 40 + 80 + 160 ms, a quarter less at most, and so on: seven connections take more than a second.
    EXPECT_FALSE(eventually([&] { return agent.connections() >= 7; }, milliseconds(1000)));
    EXPECT_GT(agent.connections(), 1);
    EXPECT_EQ(LogCollector::lines().size(), 1U);
}

// ---- agents that make the link grow ---------------------------------------------------------------------------------

TEST_F(UnstableLink, EndsWithAnAgentThatDoesNotReadItsPongs) {
    std::atomic<int> served{0};
    ScriptedAgent agent([&](PeerSocket& peer) {
        const bool isFirst = served++ == 0;
        if (!serveUntilUp(peer, {})) {
            return;
        }
        wire::Frame ping;
        ping.mutable_ping();
        while (isFirst && peer.send(ping)) {
        }
        answerUntilClosed(peer);
    });
    ASSERT_EQ(initialize(agent.path()), 0);
    EXPECT_TRUE(calledEventually({"connected", "error -5", "connected"}));
    ASSERT_EQ(LogCollector::lines().size(), 1U);
    EXPECT_NE(LogCollector::lines()[0].find("it does not read what it is sent; connection closed"), std::string::npos);
}

class QuestioningLink : public UnstableLink {
protected:
    static client::Timeouts questioning() {
        client::Timeouts timeouts;
        timeouts.synchronous = milliseconds(2000);
        timeouts.silence = milliseconds(0);
        return timeouts;
    }
    QuestioningLink() : UnstableLink(questioning()) {}
};

TEST_F(QuestioningLink, EndsWithAnAgentThatAnswersNoRequest) {
    ScriptedAgent agent([](PeerSocket& peer) { serveUntilUp(peer, {}) && peer.readUntilClosed(); });
    ASSERT_EQ(initialize(agent.path()), 0);
    std::vector<std::future<int>> askers;
    for (int i = 0; i < 65; ++i) {
        askers.push_back(std::async(std::launch::async, [this] { return accessPoint->pingSync(); }));
    }
    EXPECT_TRUE(eventually([&] { return handler->calls().size() > 1 && handler->calls()[1] == "error -5"; }));
    for (auto& asker : askers) {
        asker.get();
    }
    ASSERT_FALSE(LogCollector::lines().empty());
    EXPECT_NE(LogCollector::lines()[0].find("64 requests without an answer"), std::string::npos);
}

TEST_F(UnstableLink, EndsWithVocabulariesThatAreTooLarge) {
    for (const bool isWide : {false, true}) {
        std::atomic<int> served{0};
        ScriptedAgent agent([&](PeerSocket& peer) {
            const bool isFirst = served++ == 0;
            if (!serveUntilUp(peer, {})) {
                return;
            }
            wire::Frame frame;
            auto& vocabulary = *frame.mutable_vocabulary_set()->add_vocabularies();
            for (int i = 0; isWide && i < 10'000; ++i) {
                vocabulary.add_parameters();
            }
            vocabulary.set_name(std::string(isWide ? 0 : std::size_t{1024} * 1024, 'x'));
            if (isFirst) {
                peer.send(frame);
            }
            answerUntilClosed(peer);
        });
        handler.reset(new RecordingHandler);
        ASSERT_EQ(initialize(agent.path()), 0);
        EXPECT_TRUE(calledEventually({"connected", "error -5", "connected"}));
        EXPECT_TRUE(accessPoint->getVocabulary(accessPoint->getEID()));
    }
}

}  // namespace
}  // namespace kx::test
