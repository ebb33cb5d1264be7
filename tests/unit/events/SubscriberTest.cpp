// The subscriber's life, with the clock and the access object in the test's hands.
#include "events/KXLSubscriber.h"

#include <gmock/gmock.h>

#include <boost/make_shared.hpp>
#include <functional>
#include <string>
#include <vector>

#include "client/src/events/MessageReader.h"
#include "wire/Protocol.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Calls = std::vector<std::string>;
using Subscriber = KXLSubscriber<KXLEvent>;
using SubscriberPtr = boost::intrusive_ptr<Subscriber>;
using EventFactory = KXLDerivedParserFactory<KXLEvent, KXLEvent>;

std::time_t testTime = 0;
std::time_t readTestTime() {
    return testTime;
}

const KXLEID kAgent(KXLGUIDBase::Bytes{1, 2, 3});

/// A connection that notes what is asked of it.
class FakeConnection : public KXLAsyncConnectionPrototype {
public:
    FakeConnection(Calls& calls, int result) : calls_(calls), result_(result) {}

    int subscribe(const std::string& name, boost::intrusive_ptr<KXLTaskHandlerPrototype> handler) override {
        calls_.push_back("subscribe " + name);
        if (result_ == 0) {
            handler_ = std::move(handler);
        }
        return result_;
    }
    int unsubscribe(const std::string& name, const boost::intrusive_ptr<KXLTaskHandlerPrototype>& handler) override {
        calls_.push_back("unsubscribe " + name + (handler == handler_ ? "" : " somebody else"));
        handler_.reset();
        return 0;
    }
    void close() override { calls_.push_back("close"); }

    /// What a connection does that fails: lets go of the handler and tells it.
    void fail() {
        const auto told = std::move(handler_);
        handler_.reset();
        told->handleFailure();
    }

private:
    Calls& calls_;
    const int result_;
    boost::intrusive_ptr<KXLTaskHandlerPrototype> handler_;
};

/// Opens connections, and keeps the timeouts that are registered.
class FakeAccess : public KXLAccessPrototype {
public:
    boost::intrusive_ptr<KXLEventLoopPrototype> getEventLoop() const override { return nullptr; }
    boost::intrusive_ptr<KXLEnvCache> getCache() const override { return nullptr; }

    boost::intrusive_ptr<KXLAsyncConnectionPrototype> openEventConnection(const KXLEID& eid,
                                                                          const std::string& name) override {
        return open("open " + eid.toString().substr(0, 6) + " '" + name + "'");
    }
    boost::intrusive_ptr<KXLAsyncConnectionPrototype> openDedicatedConnection(
        const KXLEID& eid, const KXLEID& peer, const KXLConnectivityInfo* info) override {
        return open("open own " + eid.toString().substr(0, 6) + (peer.isEmpty() ? "" : " peer") +
                    (info == nullptr ? "" : " at " + info->getType() + ":" + info->getAddress()));
    }
    int registerTimeout(boost::intrusive_ptr<KXLTimeoutHandlerPrototype> handler) override {
        calls.push_back("restart in " + std::to_string(handler->getExpiry() - testTime));
        EXPECT_TRUE(handler->isActive());
        timeout = std::move(handler);
        return 0;
    }

    Calls calls;
    bool refusesConnections = false;
    int subscribeResult = 0;
    boost::intrusive_ptr<FakeConnection> connection;  ///< the last one opened
    boost::intrusive_ptr<KXLTimeoutHandlerPrototype> timeout;

private:
    boost::intrusive_ptr<KXLAsyncConnectionPrototype> open(const std::string& call) {
        calls.push_back(call);
        connection = refusesConnections ? nullptr : new FakeConnection(calls, subscribeResult);
        return connection;
    }
};

class FakeProvider : public KXLAccessProviderPrototype {
public:
    boost::intrusive_ptr<KXLAccessPrototype> getAccess() const override { return access; }
    KXLEID getEID() const override { return kAgent; }

    boost::intrusive_ptr<FakeAccess> access{new FakeAccess};
};

/// A message with a reader of its own bytes.
class FakeTask : public KXLMessageTaskPrototype {
public:
    explicit FakeTask(const std::string& bytes) : bytes_(std::make_shared<const std::string>(bytes)) {}
    std::unique_ptr<KXLMessageReaderPrototype> makeReader() const override {
        return std::make_unique<kx::client::MessageReader>(bytes_);
    }
    void finish() override { ++finished; }

    int finished = 0;

private:
    std::shared_ptr<const std::string> bytes_;
};

class NotingReceiver : public KXLReceiver<KXLEvent> {
public:
    NotingReceiver(std::string name, Calls& calls) : name_(std::move(name)), calls_(calls) {}
    int receive(const KXLEvent& event) override {
        const auto alert = boost::dynamic_pointer_cast<KXLResourceAlertData>(event.getData());
        calls_.push_back(name_ + " " + event.getCategory() + (alert ? " " + alert->alertText : ""));
        return 1;
    }
    void subscriptionLost(const KXLEID& eid) override {
        calls_.push_back(name_ + " lost " + eid.toString().substr(0, 6));
    }

private:
    std::string name_;
    Calls& calls_;
};

class SubscriberTest : public testing::Test {
protected:
    SubscriberTest() {
        testTime = 100000;
        setKXLClock(&readTestTime);
    }
    ~SubscriberTest() override {
        subscriber->stop();
        // As a loop does that ends: a timeout that is registered holds the subscriber, which holds the access object.
        access().timeout.reset();
        setKXLClock(nullptr);
    }

    void addReceiver(const std::string& name) {
        subscriber->addReceiver(0,
                                boost::intrusive_ptr<KXLReceiver<KXLEvent>>(new NotingReceiver(name, access().calls)));
    }
    FakeAccess& access() { return *access_; }
    void fail() { access().connection->fail(); }
    /// A failure so many seconds after the last thing that happened.
    /// @return what was done about it
    Calls failAfter(std::time_t seconds) {
        testTime += seconds;
        access().calls.clear();
        fail();
        return access().calls;
    }
    /// The timer fires when it should.
    void fireTimeout(std::time_t after) {
        testTime += after;
        const auto due = std::move(access().timeout);
        access().timeout.reset();
        due->handleTimeout();
    }
    int handle(const kx::wire::EventMessage& message) {
        FakeTask task(message.SerializeAsString());
        subscriber->handleMessage(task);
        return task.finished;
    }

    static kx::wire::EventMessage alerts(const Calls& texts) {
        kx::wire::EventMessage message;
        for (const std::string& text : texts) {
            auto& event = *message.add_events();
            event.set_type("resource_alert");
            event.mutable_resource_alert()->set_eid(std::string(16, '\1'));
            event.mutable_resource_alert()->set_text(text);
        }
        return message;
    }

    boost::intrusive_ptr<FakeProvider> provider{new FakeProvider};
    boost::intrusive_ptr<FakeAccess> access_ = provider->access;
    SubscriberPtr subscriber{new Subscriber(kAgent, provider, false, nullptr)};
};

constexpr auto kOpen = "open 010203 ''";
constexpr auto kSubscribe = "subscribe events";

// ---- starting and stopping --------------------------------------------------------------------------------------

TEST_F(SubscriberTest, IsStoppedUntilItIsStarted) {
    EXPECT_TRUE(subscriber->isStopped());
    EXPECT_EQ(subscriber->start(), 0);
    EXPECT_FALSE(subscriber->isStopped());
    EXPECT_THAT(access().calls, ElementsAre(kOpen, kSubscribe));
}

TEST_F(SubscriberTest, StartedAgainDoesNothing) {
    subscriber->start();
    EXPECT_EQ(subscriber->start(), 0);
    EXPECT_EQ(subscriber->start(true), 0);
    EXPECT_THAT(access().calls, ElementsAre(kOpen, kSubscribe));
}

TEST_F(SubscriberTest, ARestartDoesNotStartOneThatWasNeverStarted) {
    EXPECT_EQ(subscriber->start(true), 0);
    EXPECT_THAT(access().calls, IsEmpty());
    EXPECT_TRUE(subscriber->isStopped());
}

TEST_F(SubscriberTest, StoppedUnsubscribesAndLetsGoOfTheConnection) {
    subscriber->start();
    subscriber->stop();
    EXPECT_THAT(access().calls, ElementsAre(kOpen, kSubscribe, "unsubscribe events"));
    EXPECT_EQ(access().connection->referenceCount(), 1) << "only the test holds it";
    EXPECT_TRUE(subscriber->isStopped());
    subscriber->stop();
    EXPECT_EQ(access().calls.size(), 3U) << "there is nothing more to stop";
}

TEST_F(SubscriberTest, StoppedMayBeStartedAgain) {
    subscriber->start();
    subscriber->stop();
    access().calls.clear();
    EXPECT_EQ(subscriber->start(), 0);
    EXPECT_THAT(access().calls, ElementsAre(kOpen, kSubscribe));
}

TEST_F(SubscriberTest, FailsToStartWithoutAccess) {
    provider->access = nullptr;
    EXPECT_EQ(subscriber->start(), -1);
    EXPECT_FALSE(subscriber->isStopped()) << "it is wanted all the same";
    provider->access = access_;
    EXPECT_EQ(subscriber->start(true), 0);
    EXPECT_THAT(access().calls, ElementsAre(kOpen, kSubscribe));
}

TEST_F(SubscriberTest, WithoutAProviderFailsToStart) {
    const SubscriberPtr placeholder(new Subscriber(KXLEID::EID_INVALID, nullptr, false, nullptr));
    EXPECT_EQ(placeholder->start(), -1);
    placeholder->stop();
}

TEST_F(SubscriberTest, FailsToStartWithoutAConnectionAndMayTryAgain) {
    access().refusesConnections = true;
    EXPECT_EQ(subscriber->start(), -1);
    access().refusesConnections = false;
    EXPECT_EQ(subscriber->start(), 0);
    EXPECT_THAT(access().calls, ElementsAre(kOpen, kOpen, kSubscribe));
}

TEST_F(SubscriberTest, WhoseSubscriptionIsRefusedKeepsTheConnectionUntilThatFails) {
    access().subscribeResult = 5;
    EXPECT_EQ(subscriber->start(), -1);
    EXPECT_EQ(subscriber->start(), 0) << "there is a connection, so there is nothing to do";
    EXPECT_EQ(subscriber->start(true), 0);
    EXPECT_THAT(access().calls, ElementsAre(kOpen, kSubscribe));
    access().subscribeResult = 0;
    subscriber->handleFailure();
    EXPECT_THAT(access().calls, ElementsAre(kOpen, kSubscribe, kOpen, kSubscribe));
}

TEST_F(SubscriberTest, WithAConnectionOfItsOwnOpensAndClosesThat) {
    const SubscriberPtr own(new Subscriber(kAgent, provider, true, nullptr));
    EXPECT_EQ(own->start(), 0);
    own->stop();
    EXPECT_THAT(access().calls, ElementsAre("open own 010203", kSubscribe, "unsubscribe events", "close"));
}

TEST_F(SubscriberTest, WithAConnectionOfItsOwnPassesWhereToOnlyWhenThatHasAnAddress) {
    KXLConnectivityInfo info;
    info.setType("NamedPipe");
    const SubscriberPtr without(new Subscriber(kAgent, provider, true, &info));
    without->start();
    without->stop();
    info.setAddress("/a/socket");
    const SubscriberPtr with(new Subscriber(kAgent, provider, true, &info));
    info.setAddress("changed afterwards");
    with->start();
    with->stop();
    EXPECT_THAT(access().calls,
                ElementsAre("open own 010203", kSubscribe, "unsubscribe events", "close",
                            "open own 010203 at NamedPipe:/a/socket", kSubscribe, "unsubscribe events", "close"));
}

// ---- messages -----------------------------------------------------------------------------------------------------

TEST_F(SubscriberTest, WithoutReceiversParsesAndDropsEvents) {
    EXPECT_EQ(handle(alerts({"a"})), 1);
    EXPECT_THAT(access().calls, IsEmpty());
}

TEST_F(SubscriberTest, HandsEachEventToEachReceiverInTheirOrder) {
    addReceiver("first");
    addReceiver("second");
    EXPECT_EQ(handle(alerts({"a", "b"})), 1);
    EXPECT_THAT(access().calls, ElementsAre("first resource_alert a", "second resource_alert a",
                                            "first resource_alert b", "second resource_alert b"));
}

TEST_F(SubscriberTest, SkipsEventsOfUnknownTypesAndThoseThatCannotBeParsed) {
    addReceiver("r");
    auto message = alerts({"a", "b", "c", "d"});
    message.mutable_events(0)->set_type("of tomorrow");
    message.mutable_events(2)->mutable_resource_alert()->set_eid("too short");
    EXPECT_EQ(handle(message), 1);
    EXPECT_THAT(access().calls, ElementsAre("r resource_alert b", "r resource_alert d"));
}

TEST_F(SubscriberTest, FinishesAndIgnoresAMessageWithoutAList) {
    addReceiver("r");
    EXPECT_EQ(handle(kx::wire::EventMessage()), 1);
    FakeTask nonsense("\xff\xff\xff");
    subscriber->handleMessage(nonsense);
    EXPECT_EQ(nonsense.finished, 1);
    EXPECT_THAT(access().calls, IsEmpty());
}

/// Counts what it parses.
class CountingParser : public KXLParserPrototype<KXLEvent> {
public:
    explicit CountingParser(int& parsed) : parsed_(parsed) {}
    int parse(KXLMessageReaderPrototype&, KXLEvent*& out) const override {
        ++parsed_;
        out = std::make_unique<KXLEvent>("counted", nullptr).release();
        return 0;
    }

private:
    int& parsed_;
};

TEST_F(SubscriberTest, ParsesAndDropsEventsWithoutReceivers) {
    int parsed = 0;
    auto& parsers = EventFactory::factoryInternalData().parsers;
    parsers["counted"] = boost::make_shared<const CountingParser>(parsed);
    kx::wire::EventMessage message;
    message.add_events()->set_type("counted");
    message.add_events()->set_type("counted");
    FakeTask task(message.SerializeAsString());
    const SubscriberPtr alone(new Subscriber(kAgent, nullptr, false, nullptr));
    alone->handleMessage(task);
    parsers.erase("counted");
    EXPECT_EQ(parsed, 2);
    EXPECT_EQ(task.finished, 1);
}

class EmptyHandedParser : public KXLParserPrototype<KXLEvent> {
public:
    int parse(KXLMessageReaderPrototype&, KXLEvent*&) const override { return 0; }
};

TEST_F(SubscriberTest, EndsTheProcessWhenAParserSucceedsWithoutAnEvent) {
    kx::wire::EventMessage message;
    message.add_events()->set_type("empty handed");
    EXPECT_DEATH(
        {
            EventFactory::factoryInternalData().parsers["empty handed"] = boost::make_shared<const EmptyHandedParser>();
            handle(message);
        },
        "px != 0");
}

// ---- failing and restarting -----------------------------------------------------------------------------------------

TEST_F(SubscriberTest, TellsReceiversOfTheLossBeforeItRestarts) {
    addReceiver("first");
    addReceiver("second");
    subscriber->start();
    EXPECT_THAT(failAfter(0), ElementsAre("first lost 010203", "second lost 010203", kOpen, kSubscribe));
}

TEST_F(SubscriberTest, RestartsAtOnceFirstThenAfterTwiceTheTimePassedAndNeverLaterThanAfter30Seconds) {
    subscriber->start();
    EXPECT_THAT(failAfter(50), ElementsAre(kOpen, kSubscribe)) << "the first time at once";
    EXPECT_THAT(failAfter(0), ElementsAre("restart in 0"));
    fireTimeout(0);
    EXPECT_THAT(failAfter(1), ElementsAre("restart in 2"));
    fireTimeout(2);
    EXPECT_THAT(failAfter(0), ElementsAre("restart in 4"));
    fireTimeout(4);
    EXPECT_THAT(failAfter(1), ElementsAre("restart in 10"));
    fireTimeout(10);
    EXPECT_THAT(failAfter(5), ElementsAre("restart in 30")) << "twice 15, just allowed";
    fireTimeout(30);
    EXPECT_THAT(failAfter(0), ElementsAre("restart in 30"));
    fireTimeout(30);
    EXPECT_THAT(failAfter(10000), ElementsAre("restart in 30"));
}

TEST_F(SubscriberTest, CapsTheDelayFrom31SecondsOn) {
    subscriber->start();
    for (const auto& [passed, delay] :
         {std::pair<std::time_t, const char*>(15, "restart in 30"), {16, "restart in 30"}}) {
        fail();  // the first of a row: restarts at once
        EXPECT_THAT(failAfter(passed), ElementsAre(delay));
        fireTimeout(0);
        handle(alerts({}));
    }
}

TEST_F(SubscriberTest, TheDelaysBeginAnewAfterAMessage) {
    subscriber->start();
    fail();
    EXPECT_THAT(failAfter(7), ElementsAre("restart in 14"));
    fireTimeout(14);
    handle(kx::wire::EventMessage());
    EXPECT_THAT(failAfter(3), ElementsAre(kOpen, kSubscribe)) << "even a message without a list is a message";
    EXPECT_THAT(failAfter(1), ElementsAre("restart in 2"));
}

TEST_F(SubscriberTest, PassesADelayOn_ThatAClockSetBackHasMadeNegative) {
    subscriber->start();
    fail();
    EXPECT_THAT(failAfter(-100), ElementsAre("restart in -200"));
    fireTimeout(0);
    EXPECT_THAT(failAfter(1), ElementsAre("restart in 2"));
}

TEST_F(SubscriberTest, AStopBeforeTheRestartsTimeLeavesItStopped) {
    subscriber->start();
    fail();
    failAfter(1);
    subscriber->stop();
    access().calls.clear();
    fireTimeout(2);
    EXPECT_THAT(access().calls, IsEmpty());
    EXPECT_TRUE(subscriber->isStopped());
}

TEST_F(SubscriberTest, StoppedDoesNotRestartAtOnceEither) {
    subscriber->handleFailure();
    EXPECT_THAT(access().calls, IsEmpty());
}

TEST_F(SubscriberTest, WithoutAccessSchedulesNoRestart) {
    subscriber->start();
    fail();
    provider->access = nullptr;
    EXPECT_THAT(failAfter(1), IsEmpty());
    EXPECT_FALSE(access().timeout);
}

TEST_F(SubscriberTest, WhoseImmediateRestartFailsWaitsForTheNextFailureToBeTold) {
    subscriber->start();
    access().refusesConnections = true;
    const auto connection = access().connection;
    connection->fail();
    EXPECT_THAT(access().calls, ElementsAre(kOpen, kSubscribe, kOpen));
    EXPECT_FALSE(access().timeout);
}

TEST_F(SubscriberTest, IsKeptByItsRestartTimerUntilThatHasFired) {
    subscriber->start();
    fail();
    failAfter(1);
    const int held = subscriber->referenceCount();
    fireTimeout(2);
    EXPECT_EQ(subscriber->referenceCount(), held) << "the timer's reference has become the connection's";
}

}  // namespace
