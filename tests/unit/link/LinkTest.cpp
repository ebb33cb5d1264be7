// The link against an agent on the socket whose path is built in.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
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

    std::size_t environments() { return link->getAccessPoint()->getEnvCache()->getEnvList().size(); }
    KXLEID eid() { return link->getAccessPoint()->getEID(); }
    void addReceiver(const std::string& name) {
        link->addReceiver(boost::intrusive_ptr<KXLReceiver<KXLEvent>>(new NamedReceiver(name, received)));
    }
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
    EXPECT_EQ(agent.links(), 1);
    link->stop();
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
    const ScriptedAgent agent(kSocketPath, serve);
    SNMPNodeLocal* const first = SNMPNodeLocal::instance();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(SNMPNodeLocal::instance(), first);
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
