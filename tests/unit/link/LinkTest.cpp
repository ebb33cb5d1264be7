// The link against an agent on the socket whose path is built in.
#include <gtest/gtest.h>

#include <atomic>
#include <boost/pointer_cast.hpp>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "daemon/link/SNMPNodeLocal.h"
#include "daemon/link/SNMPNodeLocalImpl.h"
#include "tests/support/AgentScripts.h"

namespace kx::test {
namespace {

constexpr const char* kSocketPath = "/var/opt/orma/agent/agent.sock";

void serve(PeerSocket& peer) {
    if (serveUntilUp(peer, {wireEnv(1), wireEnv(2)})) {
        peer.readUntilClosed();
    }
}

/// Counts the links that came up; event connections are none.
class CountingAgent {
public:
    int links() const { return links_; }

private:
    std::atomic<int> links_{0};
    ScriptedAgent agent_{kSocketPath, [this](PeerSocket& peer) {
                             if (serveUntilUp(peer, {wireEnv(1), wireEnv(2)})) {
                                 ++links_;
                                 peer.readUntilClosed();
                             }
                         }};
};

/// Writes its name into a log for every event it receives.
class NamedReceiver : public KXLReceiver<KXLEvent> {
public:
    NamedReceiver(std::string name, std::vector<std::string>& log) : name_(std::move(name)), log_(log) {}
    int receive(const KXLEvent& event) override {
        log_.push_back(name_ + ":" + event.getCategory());
        return 0;
    }

private:
    std::string name_;
    std::vector<std::string>& log_;
};

class Link : public testing::Test {
protected:
    ~Link() override { link->stop(); }

    using ReceiverPtr = boost::intrusive_ptr<KXLReceiver<KXLEvent>>;

    std::size_t environments() { return link->getAccessPoint()->getEnvCache()->getEnvList().size(); }
    KXLEID eid() { return link->getAccessPoint()->getEID(); }
    void addReceiver(const std::string& name) { link->addReceiver(ReceiverPtr(new NamedReceiver(name, received))); }
    std::vector<std::string> dispatch(const std::string& category) {
        received.clear();
        link->dispatchEvent(KXLEvent(category, nullptr));
        return received;
    }

    std::vector<std::string> received;
    std::unique_ptr<SNMPNodeLocalImpl> link = std::make_unique<SNMPNodeLocalImpl>();
};

using Received = std::vector<std::string>;

TEST_F(Link, IsMadeWithoutAnAgentAndHasAnEmptyCache) {
    EXPECT_TRUE(link->getAccessPoint());
    EXPECT_EQ(environments(), 0U);
    EXPECT_EQ(eid(), KXLEID::EID_INVALID);
    EXPECT_TRUE(link->getStats("counters_kx_net").empty());
}

TEST_F(Link, TheFirstRequestAfterTheAgentCameIsAnsweredWithData) {
    EXPECT_EQ(environments(), 0U);
    const ScriptedAgent agent(kSocketPath, serve);
    EXPECT_EQ(environments(), 2U);
    EXPECT_NE(eid(), KXLEID::EID_INVALID);
    link->stop();
}

TEST_F(Link, IsInitialisedOnlyOnce) {
    const CountingAgent agent;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(environments(), 2U);
    }
    EXPECT_TRUE(eventually([&] { return agent.links() > 0; })) << "the agent learns of it a moment later";
    link->stop();
    EXPECT_EQ(agent.links(), 1);
}

TEST_F(Link, TriesAgainWithEveryRequestWhileTheAgentRefuses) {
    const ScriptedAgent agent(kSocketPath, [](PeerSocket& peer) {
        wire::Frame frame;
        peer.read(frame);
    });
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(environments(), 0U);
    }
    EXPECT_EQ(agent.connections(), 3);
}

TEST_F(Link, ReceiversGetEventsInTheOrderOfTheirRegistration) {
    addReceiver("first");
    addReceiver("second");
    EXPECT_EQ(dispatch("x"), (Received{"first:x", "second:x"}));
}

/// Registers another receiver from another thread while it receives, and sees whether that waits.
class RegisteringReceiver : public KXLReceiver<KXLEvent> {
public:
    explicit RegisteringReceiver(std::function<void()> addOther) : addOther_(std::move(addOther)) {}
    int receive(const KXLEvent&) override {
        added_ = std::async(std::launch::async, addOther_);
        waited_ = added_.wait_for(std::chrono::milliseconds(50)) == std::future_status::timeout;
        return 0;
    }
    bool waited() const { return waited_; }
    bool isThrough() { return added_.wait_for(kPatience) == std::future_status::ready; }

private:
    const std::function<void()> addOther_;
    std::future<void> added_;
    bool waited_ = false;
};

// Deliberate: what receivers do is kept apart from everything else that the link's lock guards.
TEST_F(Link, IsLockedWhileReceiversGetAnEvent) {
    const boost::intrusive_ptr<RegisteringReceiver> receiver(new RegisteringReceiver([this] { addReceiver("late"); }));
    link->addReceiver(receiver);
    EXPECT_EQ(dispatch("x"), Received{});
    EXPECT_TRUE(receiver->waited());
    EXPECT_TRUE(receiver->isThrough());
    EXPECT_EQ(dispatch("y"), Received{"late:y"});
    EXPECT_TRUE(receiver->isThrough()) << "it adds another one each time";
}

/// Writes its name and the texts of alerts into a log; on the event loop's thread.
class TextReceiver : public KXLReceiver<KXLEvent> {
public:
    struct Log {
        std::vector<std::string> lines() const {
            const std::lock_guard guard(lock);
            return all;
        }
        mutable std::mutex lock;
        std::vector<std::string> all;
    };

    TextReceiver(std::string name, Log& log) : name_(std::move(name)), log_(log) {}
    int receive(const KXLEvent& event) override {
        const auto alert = boost::dynamic_pointer_cast<KXLResourceAlertData>(event.getData());
        const std::lock_guard guard(log_.lock);
        log_.all.push_back(name_ + ":" + (alert ? alert->alertText : "no alert"));
        return 0;
    }

private:
    const std::string name_;
    Log& log_;
};

/// An agent that sends events to all that have subscribed, and ends all connections at once.
class EventfulAgent {
public:
    int subscriptions() const { return subscriptions_; }

    void send(const std::string& text) {
        const std::lock_guard guard(lock_);
        for (PeerSocket* const subscriber : subscribers_) {
            subscriber->send(eventFrame({alertEvent(kServerEidBytes, text)}));
        }
    }
    /// The links go first: an event connection that is lost alone is opened anew at once.
    void hangUp() {
        const std::lock_guard guard(lock_);
        for (std::set<PeerSocket*>* const peers : {&links_, &subscribers_}) {
            for (PeerSocket* const peer : *peers) {
                peer->hangUp();
            }
            peers->clear();
        }
    }

private:
    void serve(PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        std::set<PeerSocket*>& peers = request.has_event_subscribe() ? subscribers_ : links_;
        {
            const std::lock_guard guard(lock_);
            peers.insert(&peer);
        }
        if (request.has_event_subscribe()) {
            acceptSubscription(peer, request);
            ++subscriptions_;
            peer.readUntilClosed();
        } else if (serveFirstData(peer, {})) {
            answerUntilClosed(peer);
        }
        const std::lock_guard guard(lock_);
        peers.erase(&peer);
    }

    std::mutex lock_;
    std::set<PeerSocket*> links_;
    std::set<PeerSocket*> subscribers_;
    std::atomic<int> subscriptions_{0};
    ScriptedAgent agent_{kSocketPath, [this](PeerSocket& peer) { serve(peer); }};
};

TEST_F(Link, ReceiversGetEachEventOnceInTheirOrderAfterFiveReconnections) {
    TextReceiver::Log log;
    link->addReceiver(ReceiverPtr(new TextReceiver("first", log)));
    link->addReceiver(ReceiverPtr(new TextReceiver("second", log)));
    EventfulAgent agent;
    link->getAccessPoint();
    Received expected;
    for (int round = 0; round <= 5; ++round) {
        ASSERT_TRUE(eventually([&] { return agent.subscriptions() == round + 1; })) << round;
        const std::string text = "of round " + std::to_string(round);
        agent.send(text);
        expected.push_back("first:" + text);
        expected.push_back("second:" + text);
        ASSERT_TRUE(eventually([&] { return log.lines().size() >= expected.size(); })) << round;
        agent.hangUp();
    }
    link->stop();
    EXPECT_EQ(log.lines(), expected);
}

/// Ends the agent's connections while the link is locked, and sees whether it is connected anew meanwhile.
class HangingUpReceiver : public KXLReceiver<KXLEvent> {
public:
    explicit HangingUpReceiver(EventfulAgent& agent) : agent_(agent) {}
    int receive(const KXLEvent&) override {
        const int before = agent_.subscriptions();
        agent_.hangUp();
        hasMoved = eventually([&] { return agent_.subscriptions() > before; }, std::chrono::milliseconds(400));
        return 0;
    }

    bool hasMoved = false;

private:
    EventfulAgent& agent_;
};

// The first callback runs inside the request that connects, which holds the lock; no later one may take itself for it.
TEST_F(Link, ThatWasConnectedByARequestIsLockedForLaterChanges) {
    EventfulAgent agent;
    link->getAccessPoint();
    ASSERT_TRUE(eventually([&] { return agent.subscriptions() == 1; }));
    const boost::intrusive_ptr<HangingUpReceiver> receiver(new HangingUpReceiver(agent));
    link->addReceiver(receiver);
    link->dispatchEvent(KXLEvent("x", nullptr));
    EXPECT_FALSE(receiver->hasMoved);
    EXPECT_TRUE(eventually([&] { return agent.subscriptions() == 2; }));
    link->stop();
}

TEST_F(Link, ReceiversOutliveEveryReconnectionInTheirOrder) {
    addReceiver("first");
    std::atomic<int> connections{0};
    const ScriptedAgent agent(kSocketPath, [&](PeerSocket& peer) {
        if (serveUntilUp(peer, {}) && ++connections > 2) {
            peer.readUntilClosed();
        }
    });
    link->getAccessPoint();
    addReceiver("second");
    EXPECT_EQ(dispatch("connected"), (Received{"first:connected", "second:connected"}));
    EXPECT_TRUE(eventually([&] { return connections == 3; }));
    addReceiver("third");
    EXPECT_EQ(dispatch("again"), (Received{"first:again", "second:again", "third:again"}));
    link->stop();
}

TEST_F(Link, AnswersFromMemoryWhileTheAgentComesAndGoes) {
    std::atomic<int> connections{0};
    const ScriptedAgent agent(kSocketPath, [&](PeerSocket& peer) {
        if (serveUntilUp(peer, {wireEnv(1), wireEnv(2)})) {
            ++connections;  // and hangs up
        }
    });
    link->getAccessPoint();
    addReceiver("only");
    while (connections < 6) {
        EXPECT_EQ(environments(), 2U);
        EXPECT_EQ(dispatch("x"), (Received{"only:x"}));
    }
    link->stop();
}

TEST_F(Link, AnAgentThatIsThereAtTheStartIsConnectedAtOnce) {
    const CountingAgent agent;
    SNMPNodeLocalImpl second;
    EXPECT_TRUE(eventually([&] { return agent.links() == 1; }));
    EXPECT_EQ(second.getAccessPoint()->getEnvCache()->getEnvList().size(), 2U);
    second.stop();
}

TEST(AgentConnectionInfo, NamesTransportAndCacheAndNoCredentials) {
    const AgentConnectionInfo info;
    EXPECT_EQ(info.cachePath, "/opt/orma/agent/kxagent.cache");
    EXPECT_EQ(info.connectionInfo.connectivity.getType(), "NamedPipe");
    EXPECT_EQ(info.connectionInfo.connectivity.getNumber(), 0);
    EXPECT_EQ(info.connectionInfo.authName.name, "");
}

// One test for the whole life: once destroyed, the link is never made again in a process.
TEST(LinkSingleton, IsMadeOnceAndNeverAgainAfterItWasDestroyed) {
    SNMPNodeLocal* const first = SNMPNodeLocal::instance();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(SNMPNodeLocal::instance(), first);
    EXPECT_TRUE(first->getStats("counters_kx_net").empty()) << "there is no agent yet, but it is wanted from now on";
    std::atomic<int> monitors{0};
    const ScriptedAgent agent(kSocketPath, [&](PeerSocket& peer) {
        if (serveUntilUp(peer, {wireEnv(1), wireEnv(2)})) {
            wire::Frame frame;
            while (peer.read(frame)) {
                monitors += frame.has_monitor_start() ? 1 : 0;
            }
        }
    });
    EXPECT_TRUE(first->getAccessPoint());
    EXPECT_TRUE(eventually([&] { return monitors == 1; })) << "a connection that a request makes restarts the monitor";
    EXPECT_EQ(first->getEnvCache()->getEnvList().size(), 2U);
    EXPECT_EQ(first->getServerEID().toString(), "5e5e5e5e-5e5e-5e5e-5e5e-5e5e5e5e5e5e");
    EXPECT_TRUE(first->getStats("counters_kx_quota").empty());
    SNMPNodeLocal::destroy();
    EXPECT_EQ(SNMPNodeLocal::instance(), nullptr);
    SNMPNodeLocal::destroy();
    EXPECT_EQ(SNMPNodeLocal::instance(), nullptr);
}

}  // namespace
}  // namespace kx::test
