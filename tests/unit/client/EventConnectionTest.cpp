// Event connections: what they deliver, and how they end.
#include <atomic>
#include <future>

#include <kxl/KXLEvent.h>

#include "client/src/loop/Loop.h"
#include "tests/unit/client/LinkFixture.h"

namespace kx::test {
namespace {

using std::chrono::milliseconds;
using Calls = std::vector<std::string>;

/// What several handlers were called with, in one order.
class Journal {
public:
    void add(const std::string& call) {
        const std::lock_guard guard(lock_);
        calls_.push_back(call);
    }
    Calls calls() const {
        const std::lock_guard guard(lock_);
        return calls_;
    }
    bool becomes(const Calls& expected) const {
        return eventually([&] { return calls() == expected; });
    }
    void clear() {
        const std::lock_guard guard(lock_);
        calls_.clear();
    }
    bool has(const std::string& call) const {
        const Calls now = calls();
        return std::find(now.begin(), now.end(), call) != now.end();
    }

private:
    mutable std::mutex lock_;
    Calls calls_;
};

/// Writes the texts of alerts, and what else it is called with, into a journal.
class EventHandler : public KXLTaskHandlerPrototype {
public:
    EventHandler(std::string name, Journal& journal) : name_(std::move(name)), journal_(journal) {}

    void handleMessage(KXLMessageTaskPrototype& task) override {
        std::string texts = name_ + ":";
        const auto reader = task.makeReader();
        if (reader->enterField(KXLEvent::listField) == 0) {
            for (int at = reader->firstElement(KXLEvent::eventTag); at == 0;
                 at = reader->nextElement(KXLEvent::eventTag)) {
                texts += " " + textOf(*reader);
            }
        }
        task.finish();
        thread = std::this_thread::get_id();
        journal_.add(texts);
    }
    void handleFailure() override { journal_.add(name_ + " failed"); }
    void writeFinished() override { journal_.add(name_ + " subscribed"); }

    std::atomic<std::thread::id> thread;

private:
    static std::string textOf(KXLMessageReaderPrototype& reader) {
        std::string text;
        if (reader.enterField(wire::Event::kResourceAlertFieldNumber) == 0) {
            reader.getText(wire::ResourceAlert::kTextFieldNumber, text);
            reader.leaveField();
        }
        return text;
    }

    const std::string name_;
    Journal& journal_;
};

/// The link's handler, in the same journal; may act on what it hears.
class LinkHandler : public KXLRequestHandlerAgentPrototype {
public:
    explicit LinkHandler(Journal& journal) : journal_(journal) {}
    void handleConnected() override {
        journal_.add("link up");
        if (whenUp) {
            whenUp();
        }
    }
    void handleError(int) override {
        journal_.add("link lost");
        if (whenLost) {
            whenLost();
        }
    }

    std::function<void()> whenUp;
    std::function<void()> whenLost;

private:
    Journal& journal_;
};

using ConnectionPtr = boost::intrusive_ptr<KXLAsyncConnectionPrototype>;
using EventHandlerPtr = boost::intrusive_ptr<EventHandler>;
using EventScript = std::function<void(PeerSocket&)>;

/// @brief Serves one link after the other, and runs a script for each event connection that is subscribed.
ScriptedAgent::Script agentWith(EventScript events) {
    return [events = std::move(events)](PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (request.has_event_subscribe()) {
            acceptSubscription(peer, request);
            events(peer);
        } else if (serveFirstData(peer, {})) {
            answerUntilClosed(peer);
        }
    };
}

EventScript sending(std::vector<wire::Frame> frames) {
    return [frames = std::move(frames)](PeerSocket& peer) {
        for (const wire::Frame& frame : frames) {
            peer.send(frame);
        }
        peer.readUntilClosed();
    };
}

wire::Frame alerts(const std::vector<std::string>& texts) {
    std::vector<wire::Event> events;
    for (const std::string& text : texts) {
        events.push_back(alertEvent(kServerEidBytes, text));
    }
    return eventFrame(events);
}

class EventConnections : public LinkFixture {
protected:
    ~EventConnections() override { loop->stop(); }

    int bringUp(const std::string& path) {
        KXLConnectionInfo info;
        info.connectivity.setType("NamedPipe");
        info.connectivity.setAddress(path);
        return accessPoint->initializeSync(info, linkHandler, 0);
    }
    ConnectionPtr open() { return accessPoint->getAccess()->openEventConnection(accessPoint->getEID(), ""); }
    static int subscribe(const ConnectionPtr& connection, const EventHandlerPtr& handler) {
        return connection->subscribe(KXLEvent::subscriptionName, handler);
    }
    EventHandlerPtr handlerNamed(const std::string& name) { return EventHandlerPtr(new EventHandler(name, journal)); }

    Journal journal;
    boost::intrusive_ptr<LinkHandler> linkHandler{new LinkHandler(journal)};
    EventHandlerPtr first = handlerNamed("first");
};

// ---- delivery ---------------------------------------------------------------------------------------------------

TEST_F(EventConnections, DeliverMessagesInTheirOrderOnTheLoopsThread) {
    const ScriptedAgent agent(agentWith(sending({alerts({"a", "b"}), alerts({"c"}), alerts({})})));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = open();
    ASSERT_TRUE(connection);
    ASSERT_EQ(subscribe(connection, first), 0);
    EXPECT_TRUE(journal.becomes({"link up", "first subscribed", "first: a b", "first: c", "first:"}));
    EXPECT_NE(first->thread.load(), std::this_thread::get_id());
}

TEST_F(EventConnections, DeliverToSeveralHandlersInTheOrderOfTheirSubscription) {
    std::promise<void> go;
    const ScriptedAgent agent(agentWith([future = go.get_future().share()](PeerSocket& peer) {
        future.wait();
        sending({alerts({"a"})})(peer);
    }));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = open();
    const EventHandlerPtr second = handlerNamed("second");
    ASSERT_EQ(subscribe(connection, first), 0);
    ASSERT_EQ(subscribe(connection, second), 0);
    go.set_value();
    EXPECT_TRUE(eventually([&] { return journal.has("second: a"); }));
    const Calls calls = journal.calls();
    EXPECT_EQ(*(calls.end() - 2), "first: a");
}

TEST_F(EventConnections, DeliverNothingBeforeTheInitialisationHasReturned) {
    std::atomic<bool> sent{false};
    const ScriptedAgent agent(agentWith([&](PeerSocket& peer) {
        peer.send(alerts({"early"}));
        sent = true;
        peer.readUntilClosed();
    }));
    ConnectionPtr connection;
    bool tooEarly = false;
    linkHandler->whenUp = [&] {
        connection = open();
        subscribe(connection, first);
        eventually([&] { return sent.load(); });
        tooEarly = eventually([&] { return journal.calls().size() > 1; }, milliseconds(50));
    };
    ASSERT_EQ(bringUp(agent.path()), 0);
    EXPECT_FALSE(tooEarly);
    EXPECT_TRUE(journal.becomes({"link up", "first subscribed", "first: early"}));
}

TEST_F(EventConnections, AnswerThePingsOfTheAgent) {
    std::promise<std::uint64_t> ponged;
    const ScriptedAgent agent(agentWith([&](PeerSocket& peer) {
        wire::Frame frame;
        frame.set_request_id(42);
        frame.mutable_ping();
        peer.send(frame);
        while (peer.read(frame) && !frame.has_pong()) {
        }
        ponged.set_value(frame.request_id());
        peer.readUntilClosed();
    }));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = open();
    ASSERT_EQ(subscribe(connection, first), 0);
    EXPECT_EQ(ponged.get_future().get(), 42U);
}

// ---- opening ----------------------------------------------------------------------------------------------------

TEST_F(EventConnections, ToAnAgentThatIsNotConnectedCannotBeOpened) {
    EXPECT_FALSE(open()) << "there has never been an agent";
    const ScriptedAgent agent(agentWith(sending({})));
    ASSERT_EQ(bringUp(agent.path()), 0);
    KXLGUIDBase::Bytes other{};
    other[0] = 1;
    EXPECT_FALSE(accessPoint->getAccess()->openEventConnection(KXLEID(other), ""));
    EXPECT_TRUE(open());
}

TEST_F(EventConnections, OfAStoppedLoopCannotBeOpenedOrSubscribedOn) {
    const ScriptedAgent agent(agentWith(sending({})));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = open();
    loop->stop();
    EXPECT_FALSE(open());
    EXPECT_NE(subscribe(connection, first), 0);
    EXPECT_EQ(first->referenceCount(), 1);
}

TEST_F(EventConnections, RefuseASubscriptionToAnythingElseAndWithoutAHandler) {
    const ScriptedAgent agent(agentWith(sending({})));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = open();
    EXPECT_NE(connection->subscribe("else", first), 0);
    EXPECT_NE(connection->subscribe(KXLEvent::subscriptionName, nullptr), 0);
    EXPECT_NE(connection->unsubscribe(KXLEvent::subscriptionName, first), 0);
}

TEST_F(EventConnections, GoElsewhereWhenTheyAreDedicated) {
    const ScriptedAgent agent(agentWith(sending({alerts({"the link's"})})));
    const ScriptedAgent other(agentWith(sending({alerts({"the other's"})})));
    ASSERT_EQ(bringUp(agent.path()), 0);
    KXLConnectivityInfo info;
    info.setType("NamedPipe");
    info.setAddress(other.path());
    const auto access = accessPoint->getAccess();
    const ConnectionPtr elsewhere = access->openDedicatedConnection(accessPoint->getEID(), KXLEID::EID_INVALID, &info);
    const ConnectionPtr here = access->openDedicatedConnection(accessPoint->getEID(), KXLEID::EID_INVALID, nullptr);
    const EventHandlerPtr second = handlerNamed("second");
    ASSERT_EQ(subscribe(elsewhere, first), 0);
    ASSERT_EQ(subscribe(here, second), 0);
    EXPECT_TRUE(eventually([&] { return journal.has("first: the other's") && journal.has("second: the link's"); }));
}

// ---- failing ----------------------------------------------------------------------------------------------------

TEST_F(EventConnections, ThatTheAgentClosesFailAndTheLinkStaysUp) {
    const ScriptedAgent agent(agentWith([](PeerSocket&) {}));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = open();
    ASSERT_EQ(subscribe(connection, first), 0);
    EXPECT_TRUE(eventually([&] { return journal.has("first failed"); }));
    EXPECT_FALSE(journal.has("link lost"));
    EXPECT_EQ(first->referenceCount(), 1) << "a handler that was told is let go of";
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
    const ConnectionPtr connection = open();
    const EventHandlerPtr second = handlerNamed("second");
    ASSERT_EQ(subscribe(connection, first), 0);
    ASSERT_EQ(subscribe(connection, second), 0);
    linkHandler->whenLost = [&] { connection->unsubscribe(KXLEvent::subscriptionName, first); };
    ASSERT_TRUE(eventually([&] { return journal.has("first subscribed"); }));
    go.set_value();
    EXPECT_TRUE(eventually([&] { return journal.calls().back() == "link up" && journal.calls().size() > 3; }));
    EXPECT_TRUE(journal.has("second failed"));
    EXPECT_FALSE(journal.has("first failed"));
    loop->stop();  // before what the handler refers to goes
}

// ---- letting go -------------------------------------------------------------------------------------------------

TEST_F(EventConnections, CloseWhenTheLastHandlerIsUnsubscribed) {
    std::promise<void> closed;
    const ScriptedAgent agent(agentWith([&](PeerSocket& peer) {
        peer.readUntilClosed();
        closed.set_value();
    }));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = open();
    ASSERT_EQ(subscribe(connection, first), 0);
    EXPECT_TRUE(eventually([&] { return journal.has("first subscribed"); }));
    EXPECT_EQ(connection->unsubscribe(KXLEvent::subscriptionName, first), 0);
    EXPECT_EQ(closed.get_future().wait_for(kPatience), std::future_status::ready);
    EXPECT_TRUE(eventually([&] { return first->referenceCount() == 1; }));
}

TEST_F(EventConnections, CloseWithTheirLastReferenceAndTellNobody) {
    std::promise<void> closed;
    const ScriptedAgent agent(agentWith([&](PeerSocket& peer) {
        peer.readUntilClosed();
        closed.set_value();
    }));
    ASSERT_EQ(bringUp(agent.path()), 0);
    ConnectionPtr connection = open();
    ASSERT_EQ(subscribe(connection, first), 0);
    EXPECT_TRUE(eventually([&] { return journal.has("first subscribed"); }));
    connection.reset();
    EXPECT_EQ(closed.get_future().wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(first->referenceCount(), 1);
    EXPECT_FALSE(journal.has("first failed"));
}

TEST_F(EventConnections, AreDroppedInSilenceWhenTheLoopStops) {
    const ScriptedAgent agent(agentWith(sending({})));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = open();
    ASSERT_EQ(subscribe(connection, first), 0);
    EXPECT_TRUE(eventually([&] { return journal.has("first subscribed"); }));
    loop->stop();
    EXPECT_EQ(journal.calls(), (Calls{"link up", "first subscribed"}));
    EXPECT_EQ(first->referenceCount(), 1);
}

TEST_F(EventConnections, MayBeOpenedAndDroppedWhileTheLoopStops) {
    for (int round = 0; round < 20; ++round) {
        const ScriptedAgent agent(agentWith(sending({alerts({"a"})})));
        const boost::intrusive_ptr<KXLEventLoopPrototype> ownLoop(new KXLEventLoopPrototype);
        ownLoop->start();
        accessPoint = KXLAccessPointPrototype::createInstance(
            KXLAccessAgentPrototype::createInstance(nullptr, ownLoop, nullptr), nullptr);
        ASSERT_EQ(bringUp(agent.path()), 0);
        const ConnectionPtr early = open();
        subscribe(early, first);
        std::thread stopper([&] { ownLoop->stop(); });
        ConnectionPtr late = open();
        if (late) {
            subscribe(late, first);
        }
        late.reset();
        stopper.join();
        EXPECT_EQ(first->referenceCount(), 1);
    }
}

}  // namespace
}  // namespace kx::test
