// How events flow: in parts, through the gate, and with acknowledgements.
#include <atomic>
#include <future>

#include "tests/unit/client/EventFixture.h"

namespace kx::test {
namespace {

using std::chrono::milliseconds;

/// A gate under a test's control, which counts how often it is asked.
class Gate : public KXLEventGatePrototype {
public:
    bool isOpen() override {
        ++asked;
        return open;
    }

    std::atomic<bool> open{false};
    std::atomic<int> asked{0};
};

/// A handler that counts messages and events, and finishes only what it is to.
class Consumer : public KXLTaskHandlerPrototype {
public:
    void handleMessage(KXLMessageTaskPrototype& task) override {
        const auto reader = task.makeReader();
        if (reader->enterField(KXLEvent::listField) == 0) {
            for (int at = reader->firstElement(KXLEvent::eventTag); at == 0;
                 at = reader->nextElement(KXLEvent::eventTag)) {
                ++events;
            }
        }
        if (++messages != unfinished) {
            task.finish();
        }
        if (onMessage) {
            onMessage();
        }
    }
    void handleFailure() override { hasFailed = true; }

    std::atomic<int> messages{0};
    std::atomic<int> events{0};
    std::atomic<int> unfinished{0};  ///< the number of the message that is not finished; 0: none
    std::atomic<bool> hasFailed{false};
    std::function<void()> onMessage;
};

wire::Frame numbered(std::uint64_t sequence, int count) {
    wire::Frame frame = alerts(std::vector<std::string>(static_cast<std::size_t>(count), "text"));
    frame.mutable_event_message()->set_sequence(sequence);
    return frame;
}

/// An agent that keeps what is not acknowledged, if it is to; what subscribers send is written down.
class KeepingAgent {
public:
    explicit KeepingAgent(std::vector<wire::Frame> frames, bool keeps = true)
        : frames_(std::move(frames)), keeps_(keeps) {}

    std::string path() const { return agent_.path(); }
    std::string consumer() const {
        const std::lock_guard guard(lock_);
        return consumer_;
    }
    bool hasSent() const { return hasSent_; }
    bool isLeft() const { return isLeft_; }
    std::vector<std::uint64_t> acknowledged() const {
        const std::lock_guard guard(lock_);
        return acknowledged_;
    }

private:
    void serve(PeerSocket& peer) {
        wire::Frame frame;
        wire::Frame hello = helloFrame();
        hello.mutable_hello()->add_capabilities(std::string(keeps_ ? wire::kCapabilityEventAcks : "something"));
        if (!peer.read(frame) || !peer.send(hello) || !peer.read(frame)) {
            return;
        }
        if (!frame.has_event_subscribe()) {
            if (serveFirstData(peer, {})) {
                answerUntilClosed(peer);
            }
            return;
        }
        note([&] { consumer_ = frame.event_subscribe().consumer(); });
        acceptSubscription(peer, frame);
        sendAll(peer);
    }
    void sendAll(PeerSocket& peer) {
        for (const wire::Frame& each : frames_) {
            peer.send(each);
        }
        hasSent_ = true;
        wire::Frame frame;
        while (peer.read(frame)) {
            if (frame.has_event_ack()) {
                note([&] { acknowledged_.push_back(frame.event_ack().sequence()); });
            }
        }
        isLeft_ = true;
    }
    void note(const std::function<void()>& change) {
        const std::lock_guard guard(lock_);
        change();
    }

    const std::vector<wire::Frame> frames_;
    const bool keeps_;
    std::atomic<bool> hasSent_{false};
    std::atomic<bool> isLeft_{false};
    mutable std::mutex lock_;
    std::string consumer_;
    std::vector<std::uint64_t> acknowledged_;
    ScriptedAgent agent_{[this](PeerSocket& peer) { serve(peer); }};
};

class EventFlow : public EventConnections {
protected:
    ConnectionPtr openFor(const boost::intrusive_ptr<Consumer>& subscribed, const std::string& name = "") {
        ConnectionPtr connection = accessPoint->getAccess()->openEventConnection(accessPoint->getEID(), name);
        EXPECT_EQ(connection->subscribe(KXLEvent::subscriptionName, subscribed), 0);
        return connection;
    }

    boost::intrusive_ptr<Consumer> consumer{new Consumer};
    boost::intrusive_ptr<Gate> gate{new Gate};
};

using Sequences = std::vector<std::uint64_t>;

// ---- consumers and acknowledgements ---------------------------------------------------------------------------------

TEST_F(EventFlow, NamesTheProgramAsConsumerWhereTheConnectionHasNoName) {
    const KeepingAgent agent({numbered(1, 1)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = openFor(consumer);
    EXPECT_TRUE(eventually([&] { return consumer->messages == 1; }));
    EXPECT_EQ(agent.consumer(), program_invocation_short_name);
}

TEST_F(EventFlow, HasNoConsumerOnANamedConnectionOrWithAnAgentThatKeepsNothing) {
    const KeepingAgent keeping({numbered(0, 1)});
    ASSERT_EQ(bringUp(keeping.path()), 0);
    const ConnectionPtr live = openFor(consumer, "live");
    EXPECT_TRUE(eventually([&] { return consumer->messages == 1; }));
    EXPECT_EQ(keeping.consumer(), "");
}

TEST_F(EventFlow, HasNoConsumerWithAnAgentThatKeepsNothing) {
    const KeepingAgent forgetful({numbered(0, 1)}, false);
    ASSERT_EQ(bringUp(forgetful.path()), 0);
    const ConnectionPtr connection = openFor(consumer);
    EXPECT_TRUE(eventually([&] { return consumer->messages == 1; }));
    EXPECT_EQ(forgetful.consumer(), "");
}

TEST_F(EventFlow, AcknowledgesEachNumberedMessageThatWasFinished) {
    const KeepingAgent agent({numbered(1, 1), numbered(0, 1), numbered(3, 0), numbered(4, 1000)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = openFor(consumer);
    EXPECT_TRUE(eventually([&] { return agent.acknowledged() == Sequences({1, 3, 4}); }));
    EXPECT_EQ(consumer->events, 1002);
}

TEST_F(EventFlow, AcknowledgesNoMessageFromTheFirstOnOfWhichAPartWasNotFinished) {
    consumer->unfinished = 3;
    const KeepingAgent agent({numbered(1, 1), numbered(2, 100), numbered(3, 1)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    ConnectionPtr connection = openFor(consumer);
    EXPECT_TRUE(eventually([&] { return consumer->events == 102; }));
    connection.reset();
    EXPECT_TRUE(eventually([&] { return agent.isLeft(); }));
    EXPECT_EQ(agent.acknowledged(), Sequences({1})) << "an acknowledgement is of all messages before, too";
}

TEST_F(EventFlow, AcknowledgesNoMessageThatOneOfSeveralHandlersHasNotFinished) {
    const boost::intrusive_ptr<Consumer> other(new Consumer);
    other->unfinished = 1;
    const KeepingAgent agent({numbered(1, 1), numbered(2, 1)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    loop->setEventGate(gate);
    const ConnectionPtr connection = openFor(consumer);
    ASSERT_EQ(connection->subscribe(KXLEvent::subscriptionName, other), 0);
    gate->open = true;
    EXPECT_TRUE(eventually([&] { return other->messages == 2; }));
    EXPECT_EQ(connection->unsubscribe(KXLEvent::subscriptionName, consumer), 0);
    EXPECT_EQ(connection->unsubscribe(KXLEvent::subscriptionName, other), 0);
    EXPECT_TRUE(eventually([&] { return agent.isLeft(); }));
    EXPECT_EQ(agent.acknowledged(), Sequences());
}

TEST_F(EventFlow, WaitsForTheFirstHandler) {
    const KeepingAgent agent({numbered(1, 1)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    ConnectionPtr connection = accessPoint->getAccess()->openEventConnection(accessPoint->getEID(), "");
    EXPECT_TRUE(eventually([&] { return agent.hasSent(); }));
    EXPECT_EQ(accessPoint->pingSync(), 0);
    EXPECT_EQ(connection->subscribe(KXLEvent::subscriptionName, consumer), 0);
    EXPECT_TRUE(eventually([&] { return agent.acknowledged() == Sequences({1}); }));
    EXPECT_EQ(consumer->events, 1);
}

// ---- parts ----------------------------------------------------------------------------------------------------------

TEST_F(EventFlow, HandsALargeMessageOverInPartsBetweenWhichOthersHaveTheirTurn) {
    std::atomic<int> turns{0};
    std::atomic<int> atMostBetween{0};
    int before = 0;
    consumer->onMessage = [&] {
        atMostBetween = std::max(atMostBetween.load(), consumer->events - before);
        before = consumer->events;
        loop->loop()->post([&] { ++turns; });
    };
    const KeepingAgent agent({numbered(1, 1000)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = openFor(consumer);
    EXPECT_TRUE(eventually([&] { return agent.acknowledged() == Sequences({1}); }));
    EXPECT_EQ(consumer->events, 1000);
    EXPECT_LE(atMostBetween, 16);
    EXPECT_GE(turns, 1000 / 16);
    loop->stop();  // before what the handler refers to goes
}

TEST_F(EventFlow, EndsWithinAMessageWhenItsHandlerLeaves) {
    ConnectionPtr connection;
    consumer->onMessage = [&] { connection->unsubscribe(KXLEvent::subscriptionName, consumer); };
    const KeepingAgent agent({numbered(1, 1000), numbered(2, 1)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    loop->setEventGate(gate);
    connection = openFor(consumer);
    gate->open = true;
    EXPECT_TRUE(eventually([&] { return consumer->messages == 1; }));
    loop->stop();
    EXPECT_EQ(consumer->messages, 1);
    EXPECT_EQ(agent.acknowledged(), Sequences());
}

TEST_F(EventFlow, TakesAFrameWhoseEventsAreNonsenseForMalformed) {
    const ScriptedAgent agent(agentWith([](PeerSocket& peer) {
        std::string frame("\0\0\0\5\x62\3\xda\x51\x7f", 9);  // an event message whose only event has no end
        peer.sendRaw(frame);
        peer.readUntilClosed();
    }));
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = openFor(consumer);
    EXPECT_TRUE(eventually([&] { return consumer->hasFailed.load(); }));
    EXPECT_EQ(consumer->messages, 0);
    ASSERT_EQ(LogCollector::lines().size(), 1U);
    EXPECT_NE(LogCollector::lines()[0].find("a frame that is not a message; event connection closed"),
              std::string::npos);
}

// ---- the gate -------------------------------------------------------------------------------------------------------

TEST_F(EventFlow, IsHeldBackWhileTheGateIsClosedAndNothingIsLost) {
    const KeepingAgent agent({numbered(1, 100), numbered(2, 1)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    loop->setEventGate(gate);
    const ConnectionPtr connection = openFor(consumer);
    EXPECT_TRUE(eventually([&] { return gate->asked > 2; }));
    EXPECT_EQ(consumer->messages, 0);
    gate->open = true;
    EXPECT_TRUE(eventually([&] { return agent.acknowledged() == Sequences({1, 2}); }));
    EXPECT_EQ(consumer->events, 101);
}

TEST_F(EventFlow, CanBeHeldBackBetweenTwoPartsOfAMessage) {
    gate->open = true;
    consumer->onMessage = [&] { gate->open = false; };
    const KeepingAgent agent({numbered(1, 100)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    loop->setEventGate(gate);
    const ConnectionPtr connection = openFor(consumer);
    for (int part = 1; consumer->events < 100; ++part) {
        const int before = gate->asked;
        ASSERT_TRUE(eventually([&] { return consumer->messages == part && gate->asked > before; }));
        EXPECT_EQ(consumer->messages, part);
        gate->open = true;
    }
    EXPECT_TRUE(eventually([&] { return agent.acknowledged() == Sequences({1}); }));
    loop->stop();
}

TEST_F(EventFlow, LeavesItsSocketUnreadWhileTheGateIsClosed) {
    std::atomic<int> sent{0};
    std::promise<void> open;
    const ScriptedAgent agent(agentWith([&](PeerSocket& peer) {
        const wire::Frame large = alerts({std::string(10000, 'x')});
        while (peer.send(large)) {
            ++sent;
        }
    }));
    ASSERT_EQ(bringUp(agent.path()), 0);
    loop->setEventGate(gate);
    ConnectionPtr connection = openFor(consumer);
    // The agent stands still once the socket, and what one read takes, are full.
    int before = -1;
    EXPECT_TRUE(eventually([&] {
        const int now = gate->asked;
        const bool stands = sent == before;
        before = sent;
        return stands && sent > 0 && eventually([&] { return gate->asked > now + 2; });
    }));
    EXPECT_LT(sent, 100);
    gate->open = true;
    EXPECT_TRUE(eventually([&] { return consumer->messages > 200; }));
    connection.reset();
}

TEST_F(EventFlow, EndsAtOnceWithTheLoopWhileTheGateIsClosed) {
    const KeepingAgent agent({numbered(1, 1)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    loop->setEventGate(gate);
    const ConnectionPtr connection = openFor(consumer);
    EXPECT_TRUE(eventually([&] { return gate->asked > 0; }));
    loop->stop();
    EXPECT_EQ(consumer->referenceCount(), 1);
    EXPECT_EQ(consumer->messages, 0);
}

TEST_F(EventFlow, KeepsNoSynchronousCallWaitingWhileTheGateIsClosed) {
    const KeepingAgent agent({numbered(1, 1)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    loop->setEventGate(gate);
    const ConnectionPtr connection = openFor(consumer);
    EXPECT_TRUE(eventually([&] { return gate->asked > 0; }));
    EXPECT_EQ(accessPoint->pingSync(), 0);
}

// ---- who waits for the loop -----------------------------------------------------------------------------------------

TEST_F(EventFlow, ShowsACallbackThatAThreadWaitsForTheLoop) {
    std::promise<void> inCallback;
    std::atomic<bool> seen{false};
    consumer->onMessage = [&] {
        EXPECT_FALSE(loop->isWaitedFor());
        inCallback.set_value();
        seen = eventually([&] { return loop->isWaitedFor(); });
    };
    const KeepingAgent agent({numbered(1, 1)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = openFor(consumer);
    inCallback.get_future().wait();
    EXPECT_EQ(accessPoint->pingSync(), 0);
    EXPECT_TRUE(seen);
    EXPECT_FALSE(loop->isWaitedFor());
    loop->stop();
}

TEST_F(EventFlow, ShowsACallbackThatTheLoopIsToStop) {
    std::promise<void> inCallback;
    std::atomic<bool> seen{false};
    consumer->onMessage = [&] {
        inCallback.set_value();
        seen = eventually([&] { return loop->isWaitedFor(); });
    };
    const KeepingAgent agent({numbered(1, 1)});
    ASSERT_EQ(bringUp(agent.path()), 0);
    const ConnectionPtr connection = openFor(consumer);
    inCallback.get_future().wait();
    loop->stop();
    EXPECT_TRUE(seen);
}

}  // namespace
}  // namespace kx::test
