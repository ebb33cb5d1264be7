// Event connections: what they deliver, and how they are let go of.
#include <atomic>
#include <future>

#include "tests/unit/client/EventFixture.h"

namespace kx::test {
namespace {

using std::chrono::milliseconds;

// ---- delivery ---------------------------------------------------------------------------------------------------

TEST_F(EventConnections, DeliverMessagesInTheirOrderOnTheLoopsThread) {
    const ScriptedAgent agent(agentWith(sending({alerts({"a", "b"}), alerts({"c"}), alerts({})})));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = openWith({first});
    ASSERT_TRUE(connection);
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
    const auto openTo = [this](const KXLConnectivityInfo* where) {
        return accessPoint->getAccess()->openDedicatedConnection(accessPoint->getEID(), KXLEID::EID_INVALID, where);
    };
    const EventHandlerPtr second = handlerNamed("second");
    const ConnectionPtr elsewhere = openWith({first}, [&] { return openTo(&info); });
    const ConnectionPtr here = openWith({second}, [&] { return openTo(nullptr); });
    EXPECT_TRUE(eventually([&] { return journal.has("first: the other's") && journal.has("second: the link's"); }));
}

// ---- letting go -------------------------------------------------------------------------------------------------

TEST_F(EventConnections, CloseWhenTheLastHandlerIsUnsubscribed) {
    std::promise<void> closed;
    const ScriptedAgent agent(agentWith([&](PeerSocket& peer) {
        peer.readUntilClosed();
        closed.set_value();
    }));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = openWith({first});
    EXPECT_TRUE(eventually([&] { return journal.has("first subscribed"); }));
    EXPECT_EQ(connection->unsubscribe(KXLEvent::subscriptionName, first), 0);
    EXPECT_EQ(closed.get_future().wait_for(kPatience), std::future_status::ready);
    EXPECT_TRUE(eventually([&] { return first->referenceCount() == 1; }));
    // It is closed for good: who comes later is told that it has failed.
    const EventHandlerPtr late = handlerNamed("late");
    EXPECT_EQ(subscribe(connection, late), 0);
    EXPECT_TRUE(eventually([&] { return journal.has("late failed"); }));
}

TEST_F(EventConnections, CallWhoeverSubscribesAfterTheLastOneLeftBeforeTheLoopNoticed) {
    const ScriptedAgent agent(agentWith(sending({})));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = openWith({first});
    EXPECT_TRUE(eventually([&] { return journal.has("first subscribed"); }));
    const EventHandlerPtr late = handlerNamed("late");
    std::promise<void> done;
    loop->loop()->post([&] {  // the loop can do nothing in between
        EXPECT_EQ(connection->unsubscribe(KXLEvent::subscriptionName, first), 0);
        EXPECT_EQ(subscribe(connection, late), 0);
        done.set_value();
    });
    done.get_future().wait();
    EXPECT_TRUE(eventually([&] { return journal.has("late failed"); }));
}

TEST_F(EventConnections, CloseWithTheirLastReferenceAndTellNobody) {
    std::promise<void> closed;
    const ScriptedAgent agent(agentWith([&](PeerSocket& peer) {
        peer.readUntilClosed();
        closed.set_value();
    }));
    ASSERT_EQ(bringUp(agent.path()), 0);
    ConnectionPtr connection = openWith({first});
    EXPECT_TRUE(eventually([&] { return journal.has("first subscribed"); }));
    connection.reset();
    EXPECT_EQ(closed.get_future().wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(first->referenceCount(), 1);
    EXPECT_FALSE(journal.has("first failed"));
}

TEST_F(EventConnections, AreDroppedInSilenceWhenTheLoopStops) {
    const ScriptedAgent agent(agentWith(sending({})));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = openWith({first});
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
