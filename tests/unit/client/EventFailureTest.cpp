// Event connections that fail, and in what order that is told.
#include <atomic>
#include <future>

#include "client/src/loop/Loop.h"
#include "tests/unit/client/EventFixture.h"

namespace kx::test {
namespace {

// ---- failing ----------------------------------------------------------------------------------------------------

TEST_F(EventConnections, ThatTheAgentClosesFailAndTheLinkStaysUp) {
    const ScriptedAgent agent(agentWith([](PeerSocket&) {}));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = open();
    ASSERT_EQ(subscribe(connection, first), 0);
    EXPECT_TRUE(eventually([&] { return journal.has("first failed"); }));
    EXPECT_FALSE(journal.has("link lost"));
    EXPECT_TRUE(eventually([&] { return first->referenceCount() == 1; })) << "a handler that was told is let go of";
    ASSERT_EQ(subscribe(connection, first), 0);
    EXPECT_TRUE(eventually([&] { return journal.calls().back() == "first failed" && journal.calls().size() >= 3; }))
        << "who subscribes on a connection that has failed is told so";
    EXPECT_TRUE(LogCollector::lines().empty());
}

TEST_F(EventConnections, ToASocketThatIsNotThereFail) {
    const ScriptedAgent agent(agentWith(sending({})));
    ASSERT_EQ(bringUp(agent.path()), 0);
    KXLConnectivityInfo info;
    info.setType("NamedPipe");
    info.setAddress(agent.path() + ".missing");
    const ConnectionPtr connection =
        accessPoint->getAccess()->openDedicatedConnection(accessPoint->getEID(), KXLEID::EID_INVALID, &info);
    ASSERT_TRUE(connection) << "opening answers at once";
    ASSERT_EQ(subscribe(connection, first), 0);
    EXPECT_TRUE(journal.becomes({"link up", "first failed"}));
}

TEST_F(EventConnections, OverATransportThatIsNotThereFail) {
    const ScriptedAgent agent(agentWith(sending({})));
    ASSERT_EQ(bringUp(agent.path()), 0);
    KXLConnectivityInfo info;
    info.setType("Pigeons");
    const ConnectionPtr connection =
        accessPoint->getAccess()->openDedicatedConnection(accessPoint->getEID(), KXLEID::EID_INVALID, &info);
    ASSERT_EQ(subscribe(connection, first), 0);
    EXPECT_TRUE(journal.becomes({"link up", "first failed"}));
}

/// Runs one event connection whose handshake goes as the script says.
ScriptedAgent::Script agentWithHandshake(std::function<void(PeerSocket&)> answerHello) {
    return [answerHello = std::move(answerHello), links = std::make_shared<std::atomic<int>>(0)](PeerSocket& peer) {
        if ((*links)++ == 0) {
            if (serveUntilUp(peer, {})) {
                answerUntilClosed(peer);
            }
            return;
        }
        wire::Frame hello;
        if (peer.read(hello)) {
            answerHello(peer);
        }
    };
}

class EventHandshakes : public EventConnections {
protected:
    /// Opens an event connection that must fail.
    /// @return the library's log lines about it
    Calls failWith(const std::function<void(PeerSocket&)>& answerHello) {
        const ScriptedAgent agent(agentWithHandshake(answerHello));
        EXPECT_EQ(bringUp(agent.path()), 0);
        const ConnectionPtr connection = open();
        EXPECT_EQ(subscribe(connection, first), 0);
        EXPECT_TRUE(eventually([&] { return journal.has("first failed"); }));
        EXPECT_FALSE(journal.has("link lost"));
        Calls lines = LogCollector::lines();
        for (std::string& line : lines) {
            line = line.substr(line.find(": ") + 2);
        }
        return lines;
    }
};

TEST_F(EventHandshakes, WithAnAgentThatOffersNoEventsFailAndAreLogged) {
    EXPECT_EQ(failWith([](PeerSocket& peer) {
                  wire::Frame hello = helloFrame();
                  hello.mutable_hello()->clear_capabilities();
                  peer.send(hello);
                  peer.readUntilClosed();
              }),
              Calls{"it does not offer events"});
}

TEST_F(EventHandshakes, WithAnotherMajorVersionFailAndAreLogged) {
    EXPECT_EQ(failWith([](PeerSocket& peer) {
                  wire::Frame hello = helloFrame();
                  hello.mutable_hello()->set_protocol_major(9);
                  peer.send(hello);
                  peer.readUntilClosed();
              }),
              Calls{"it speaks protocol version 9, not 1"});
}

TEST_F(EventHandshakes, ThatAreRefusedFailAndAreLogged) {
    EXPECT_EQ(failWith([](PeerSocket& peer) {
                  peer.send(wire::makeErrorFrame(wire::ERROR_TOO_MANY_CONNECTIONS, "all are taken"));
                  peer.readUntilClosed();
              }),
              Calls{"it ended the event connection: all are taken"});
}

TEST_F(EventHandshakes, WhoseSubscriptionIsRefusedFailAndAreLogged) {
    EXPECT_EQ(failWith([](PeerSocket& peer) {
                  wire::Frame frame;
                  peer.send(helloFrame());
                  peer.read(frame);
                  frame.mutable_refusal()->set_text("no such\nname");
                  peer.send(frame);
                  peer.readUntilClosed();
              }),
              Calls{"it refused the event subscription: no such?name"});
}

TEST_F(EventHandshakes, AnsweredByNonsenseFailAndAreLogged) {
    EXPECT_EQ(failWith([](PeerSocket& peer) {
                  peer.sendRaw(std::string("\0\0\0\4nope", 8));
                  peer.readUntilClosed();
              }),
              Calls{"a frame that is not a message; event connection closed"});
}

TEST_F(EventHandshakes, AnsweredByAFarewellFailInSilence) {
    EXPECT_EQ(failWith([](PeerSocket& peer) {
                  peer.send(wire::makeErrorFrame(wire::ERROR_SHUTTING_DOWN, "bye"));
                  peer.readUntilClosed();
              }),
              Calls{});
}

/// Whose event connections have a tenth of a second until they are subscribed.
class ImpatientEventConnections : public EventConnections {
protected:
    ImpatientEventConnections()
        : EventConnections([] {
              client::Timeouts timeouts = patient();
              timeouts.reconnect = std::chrono::milliseconds(100);
              return timeouts;
          }()) {}
};

TEST_F(ImpatientEventConnections, WhoseSubscriptionIsNotAnsweredFailAndAreLogged) {
    const ScriptedAgent agent([](PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (request.has_event_subscribe()) {
            peer.readUntilClosed();
        } else if (serveFirstData(peer, {})) {
            answerUntilClosed(peer);
        }
    });
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = open();
    ASSERT_EQ(subscribe(connection, first), 0);
    EXPECT_TRUE(journal.becomes({"link up", "first failed"}));
    ASSERT_EQ(LogCollector::lines().size(), 1U);
    EXPECT_NE(LogCollector::lines()[0].find("its event connection was not answered in time"), std::string::npos);
}

/// Closes a link and its event connection in one go, in either order.
class VanishingAgent {
public:
    explicit VanishingAgent(bool eventsFirst) : eventsFirst_(eventsFirst) {}

    /// Waits until both are there, and closes them. Called by the script of each.
    void vanish(PeerSocket& peer, bool isEvents) {
        (isEvents ? events_ : link_) = &peer;
        eventually([&] { return ended_ || (events_ != nullptr && link_ != nullptr); });
        if (!ended_.exchange(true)) {
            (eventsFirst_ ? events_ : link_).load()->hangUp();
            (eventsFirst_ ? link_ : events_).load()->hangUp();
        }
        done_++;
        eventually([&] { return done_ == 2; });
    }

private:
    const bool eventsFirst_;
    std::atomic<PeerSocket*> events_{nullptr};
    std::atomic<PeerSocket*> link_{nullptr};
    std::atomic<bool> ended_{false};
    std::atomic<int> done_{0};
};

TEST_F(EventConnections, OfALostLinkFailAfterItsHandlerWasToldHoweverTheAgentCloses) {
    for (int round = 0; round < 100; ++round) {
        VanishingAgent agentsEnd(round % 2 == 0);
        std::atomic<int> linksSeen{0};
        const ScriptedAgent agent([&](PeerSocket& peer) {
            wire::Frame request;
            if (!shakeHands(peer, request)) {
                return;
            }
            if (request.has_event_subscribe()) {
                acceptSubscription(peer, request);
                agentsEnd.vanish(peer, true);
            } else if (serveFirstData(peer, {}) && linksSeen++ == 0) {
                agentsEnd.vanish(peer, false);
            } else {
                peer.readUntilClosed();
            }
        });
        ASSERT_EQ(bringUp(agent.path()), 0);
        const ConnectionPtr connection = open();
        ASSERT_EQ(subscribe(connection, first), 0);
        ASSERT_TRUE(eventually([&] { return journal.has("first failed"); }));
        const Calls calls = journal.calls();
        const auto lost = std::find(calls.begin(), calls.end(), "link lost");
        const auto failed = std::find(calls.begin(), calls.end(), "first failed");
        ASSERT_TRUE(lost < failed) << "round " << round;
        accessPoint = KXLAccessPointPrototype::createInstance(
            KXLAccessAgentPrototype::createInstance(nullptr, loop, nullptr), nullptr);
        // What the old one may still have had to say is said.
        std::promise<void> through;
        accessPoint->getAccess()->getEventLoop()->loop()->post([&] { through.set_value(); });
        through.get_future().wait();
        journal.clear();
    }
}

TEST_F(EventConnections, ThatTheLinksHandlerUnsubscribesAreNotToldOfTheLoss) {
    std::atomic<int> links{0};
    std::promise<void> go;
    const ScriptedAgent agent([&, future = go.get_future().share()](PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (request.has_event_subscribe()) {
            acceptSubscription(peer, request);
            peer.readUntilClosed();
        } else if (serveFirstData(peer, {})) {
            if (links++ == 0) {
                future.wait();  // and hangs up
            } else {
                peer.readUntilClosed();
            }
        }
    });
    ASSERT_EQ(bringUp(agent.path()), 0);
    const EventHandlerPtr second = handlerNamed("second");
    const ConnectionPtr connection = openWith({first, second});
    linkHandler->whenLost = [&] { connection->unsubscribe(KXLEvent::subscriptionName, first); };
    ASSERT_TRUE(eventually([&] { return journal.has("first subscribed"); }));
    go.set_value();
    EXPECT_TRUE(eventually([&] { return journal.calls().back() == "link up" && journal.calls().size() > 3; }));
    EXPECT_TRUE(journal.has("second failed"));
    EXPECT_FALSE(journal.has("first failed"));
    loop->stop();  // before what the handler refers to goes
}

// ---- pauses ---------------------------------------------------------------------------------------------------------

/// Subscribes anew as soon as it fails, as the daemon's subscriber does during the first second.
class PersistentHandler : public KXLTaskHandlerPrototype {
public:
    explicit PersistentHandler(std::function<ConnectionPtr()> opens) : opens_(std::move(opens)) {}

    void handleMessage(KXLMessageTaskPrototype&) override {}
    void handleFailure() override {
        connection_ = opens_();
        if (connection_) {
            connection_->subscribe(KXLEvent::subscriptionName, this);
        }
    }

private:
    const std::function<ConnectionPtr()> opens_;
    ConnectionPtr connection_;
};

TEST_F(EventConnections, ThatFailOneAfterTheOtherAreMadeEverMoreSeldom) {
    const ScriptedAgent agent(agentWith([](PeerSocket&) {}));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const boost::intrusive_ptr<PersistentHandler> persistent(new PersistentHandler([this] { return open(); }));
    loop->loop()->post([&] { persistent->handleFailure(); });
    // The link; two at once; and then one after each pause of 100, 200 and 400 ms, a quarter less at most.
    EXPECT_FALSE(eventually([&] { return agent.connections() > 6; }, std::chrono::milliseconds(700)));
    EXPECT_GE(agent.connections(), 3) << "the first failure is not waited for";
    loop->stop();  // before what the handler refers to goes
}

}  // namespace
}  // namespace kx::test
