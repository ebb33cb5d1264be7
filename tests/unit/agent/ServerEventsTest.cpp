// Subscriptions to events, what is sent for them, and alerts that clients have raised.
#include <limits>

#include "agent/server/EventFrames.h"
#include "tests/unit/agent/ServerFixture.h"
#include "tests/unit/alerts/PrintAlert.h"

namespace kx::agent {
namespace {

using test::Peer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr WallTime kNow{std::chrono::milliseconds(1'700'000'000'123)};

/// Keeps what was raised.
class Raiser : public AlertRaiser {
public:
    std::string whyNoAlerts() const override { return why_; }
    void raise(AlertSignal signal) override { signals_.push_back(std::move(signal)); }

    std::string why_;
    std::vector<AlertSignal> signals_;
};

class ServerEvents : public test::ServerFixture {
protected:
    ServerEvents() {
        settings_.raiser = &raiser_;
        settings_.clock = [] { return kNow; };
    }
    ~ServerEvents() override { stop(); }

    static void subscribe(Peer& peer, std::uint64_t requestId = 1, std::string_view name = wire::kEventsName) {
        wire::Frame frame;
        frame.set_request_id(requestId);
        frame.mutable_event_subscribe()->set_name(std::string(name));
        peer.send(frame);
    }

    /// @return a peer that has subscribed, and has been told so
    Peer subscriber() {
        Peer peer = connect();
        peer.shakeHands();
        subscribe(peer, 5);
        const auto answer = peer.receive();
        EXPECT_TRUE(answer && answer->has_done());
        EXPECT_EQ(answer->request_id(), 5U);
        return peer;
    }

    static std::vector<wire::Event> nextEvents(Peer& peer) {
        const auto frame = peer.receive();
        if (!frame || !frame->has_event_message()) {
            ADD_FAILURE() << "no events but " << (frame ? frame->body_case() : -1);
            return {};
        }
        EXPECT_EQ(frame->request_id(), 0U);
        const auto& events = frame->event_message().events();
        return {events.begin(), events.end()};
    }

    static wire::AlertRaise raiseOf(const std::string& text) {
        wire::AlertRaise request;
        request.set_eid(Eid::fromName("machine", "web").toWire());
        request.set_text(text);
        return request;
    }

    /// @return the refusal's text; empty when it was done
    static std::string answerTo(Peer& peer, const wire::AlertRaise& request, std::uint64_t requestId = 9) {
        wire::Frame frame;
        frame.set_request_id(requestId);
        *frame.mutable_alert_raise() = request;
        peer.send(frame);
        const auto answer = peer.receive();
        if (!answer) {
            return "the connection was closed";
        }
        EXPECT_EQ(answer->request_id(), requestId);
        EXPECT_TRUE(answer->has_done() || !answer->refusal().text().empty());
        return answer->refusal().text();
    }

    static AlertSignal signalOf(const std::string& text) {
        return {Eid::fromName("machine", "web"), "memory.oom", kAlertCritical, text, 3};
    }

    void tell(const std::vector<AlertSignal>& signals) {
        std::vector<Alert> alerts;
        for (const AlertSignal& signal : signals) {
            alerts.push_back({signal, 0, std::chrono::nanoseconds(0)});
        }
        onLoop([&] { server_->publish(alerts); });
    }

    Raiser raiser_;
};

// ---- subscribing ----

TEST_F(ServerEvents, theAgentSaysThatItHasEventsAndRaisesAlerts) {
    serve();
    Peer peer = connect();
    peer.sendHello();
    const auto answer = peer.receive();
    ASSERT_TRUE(answer);
    EXPECT_TRUE(wire::hasCapability(answer->hello(), wire::kCapabilityEvents));
    EXPECT_TRUE(wire::hasCapability(answer->hello(), wire::kCapabilityRaise));
}

TEST_F(ServerEvents, aSubscriptionIsAnsweredAndThenAlertsCome) {
    serve();
    Peer peer = subscriber();
    tell({signalOf("one"), signalOf("two")});
    const auto events = nextEvents(peer);
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(events[0].type(), "resource_alert");
    EXPECT_EQ(events[0].time_ms(), 1'700'000'000'123U);
    EXPECT_EQ(events[0].resource_alert().text(), "one");
    EXPECT_EQ(events[1].resource_alert().text(), "two");
    EXPECT_EQ(logged(), "");
}

TEST_F(ServerEvents, aSecondSubscriptionIsAnsweredAndBringsNothingTwice) {
    serve();
    Peer peer = subscriber();
    subscribe(peer, 6);
    EXPECT_TRUE(peer.receive()->has_done());
    tell({signalOf("one")});
    EXPECT_THAT(nextEvents(peer), SizeIs(1));
    peer.ping(7);
    EXPECT_TRUE(peer.receive()->has_pong());
}

TEST_F(ServerEvents, whoHasNotSubscribedGetsNone) {
    serve();
    Peer reader = subscriber();
    Peer other = connect();
    other.shakeHands();
    other.askForSnapshot();
    ASSERT_TRUE(other.receive()->has_snapshot_chunk());
    tell({signalOf("one")});
    EXPECT_THAT(nextEvents(reader), SizeIs(1));
    other.ping(1);
    EXPECT_TRUE(other.receive()->has_pong());
}

TEST_F(ServerEvents, aSubscriptionToAnythingElseIsRefusedInWordsAndTheConnectionGoesOn) {
    serve();
    Peer peer = connect();
    peer.shakeHands();
    for (const std::string name : {"", "event", "events ", "Events"}) {
        subscribe(peer, 8, name);
        const auto answer = peer.receive();
        ASSERT_TRUE(answer && answer->has_refusal()) << name;
        EXPECT_EQ(answer->request_id(), 8U);
        EXPECT_THAT(answer->refusal().text(), HasSubstr("\"" + name + "\""));
    }
    tell({signalOf("one")});
    EXPECT_TRUE(peer.isServed());
    EXPECT_EQ(logged(), "");
}

TEST_F(ServerEvents, aSubscriberThatLeavesDisturbsNobody) {
    serve();
    Peer stays = subscriber();
    { const Peer leaves = subscriber(); }
    tell({signalOf("one")});
    EXPECT_THAT(nextEvents(stays), SizeIs(1));
    EXPECT_EQ(logged(), "");
}

// ---- environments ----

TEST_F(ServerEvents, theFirstImageIsNoChangeAndLaterOnesAre) {
    serve();
    Peer peer = subscriber();
    publish({"web", "db"});
    peer.ping(1);
    EXPECT_TRUE(peer.receive()->has_pong());
    publish({"web", "db", "mail"});
    EXPECT_THAT(nextEvents(peer), SizeIs(1));
}

TEST_F(ServerEvents, changesAreToldWithTheirKind) {
    serve();
    publish({"web", "db"});
    Peer peer = subscriber();
    publish({"db", "mail"});
    const auto events = nextEvents(peer);
    ASSERT_THAT(events, SizeIs(2));
    EXPECT_EQ(events[0].environment_change().name(), "web");
    EXPECT_EQ(events[0].environment_change().kind(), wire::CHANGE_REMOVED);
    EXPECT_EQ(events[1].environment_change().name(), "mail");
    EXPECT_EQ(events[1].environment_change().kind(), wire::CHANGE_ADDED);
    EXPECT_EQ(events[1].environment_change().eid(), Eid::fromName("machine", "mail").toWire());
    publish({"db", "mail"}, 10);
    const auto modified = nextEvents(peer);
    ASSERT_THAT(modified, SizeIs(2));
    EXPECT_EQ(modified[0].environment_change().kind(), wire::CHANGE_MODIFIED);
}

TEST_F(ServerEvents, whoLearnsOfAContainerByAnEventFindsItInTheListAlready) {
    serve();
    publish({});
    std::vector<Peer> lists;
    for (int i = 0; i < 5; ++i) {
        lists.push_back(connect());
        lists.back().shakeHands();
        lists.back().askForSnapshot();
        ASSERT_TRUE(lists.back().receive()->has_snapshot_chunk());
    }
    Peer events = subscriber();
    HostImage image;
    image.environments.emplace_back();
    image.environments.back().eid = Eid::fromName("machine", "web");
    // With the alert in front of it the event connection is the first whose turn to write comes.
    onLoop([&] {
        server_->publish({Alert{signalOf("oom"), 0, std::chrono::nanoseconds(0)}});
        server_->publish(content().apply(std::move(image)));
    });
    EXPECT_TRUE(nextEvents(events).at(0).has_resource_alert());
    EXPECT_TRUE(nextEvents(events).at(0).has_environment_change());
    for (Peer& list : lists) {
        EXPECT_TRUE(list.hasInput()) << "the delta was not there before the event";
    }
}

// ---- those who do not read ----

/// @return how many signals an alert of this text stands for
std::uint64_t standsFor(const std::string& text) {
    const auto place = text.find(" (and ");
    return place == std::string::npos ? 1 : 1 + std::stoull(text.substr(place + 6));
}

TEST_F(ServerEvents, aSubscriberThatDoesNotReadGetsTheLatestAlertOfEachSourceForAllOthers) {
    settings_.limits.maxUnsentEventBytes = std::size_t{100} * 1024;
    serve();
    Peer silent = subscriber();
    Peer reader = subscriber();
    for (int i = 0; i < 100; ++i) {
        tell({signalOf(std::to_string(i) + std::string(10'000, 'x'))});
        EXPECT_THAT(nextEvents(reader).at(0).resource_alert().text(), testing::StartsWith(std::to_string(i) + "x"));
    }
    std::uint64_t signals = 0;
    std::size_t alerts = 0;
    std::string last;
    while (signals < 100) {
        last = nextEvents(silent).at(0).resource_alert().text();
        signals += standsFor(last);
        ++alerts;
    }
    EXPECT_EQ(signals, 100U);
    EXPECT_LT(alerts, 100U);
    EXPECT_THAT(last, testing::StartsWith("99x"));
    EXPECT_TRUE(silent.isServed());
    EXPECT_THAT(logged(), testing::AllOf(HasSubstr("does not read its events"), HasSubstr("reads its events again")));
}

TEST_F(ServerEvents, aSubscriberThatDoesNotReadGetsTheLatestChangeOfEachEnvironment) {
    settings_.limits.maxUnsentEventBytes = std::size_t{100} * 1024;
    serve();
    publish({"web"});
    Peer silent = subscriber();
    tell({signalOf(std::string(250'000, 'x')), signalOf(std::string(250'000, 'x'))});
    publish({"web"}, 1);
    publish({"web"}, 2);
    publish({});
    EXPECT_THAT(nextEvents(silent), SizeIs(1));
    EXPECT_THAT(nextEvents(silent), SizeIs(1));
    const auto changes = nextEvents(silent);
    ASSERT_THAT(changes, SizeIs(1));
    EXPECT_EQ(changes[0].environment_change().kind(), wire::CHANGE_REMOVED);
    EXPECT_TRUE(silent.isServed());
    EXPECT_FALSE(silent.hasInput());
}

// ---- consumers ----

class ServerConsumers : public ServerEvents {
protected:
    ServerConsumers() { settings_.consumers = &consumers_; }
    ~ServerConsumers() override { stop(); }

    Peer consumer(const std::string& name = "kxsnmp") {
        Peer peer = connect();
        peer.shakeHands();
        wire::Frame frame;
        frame.mutable_event_subscribe()->set_name(std::string(wire::kEventsName));
        frame.mutable_event_subscribe()->set_consumer(name);
        peer.send(frame);
        EXPECT_TRUE(peer.receive()->has_done());
        return peer;
    }

    static wire::EventMessage nextMessage(Peer& peer) {
        const auto frame = peer.receive();
        EXPECT_TRUE(frame && frame->has_event_message());
        return frame ? frame->event_message() : wire::EventMessage();
    }

    static void acknowledge(Peer& peer, std::uint64_t sequence) {
        wire::Frame frame;
        frame.mutable_event_ack()->set_sequence(sequence);
        peer.send(frame);
    }

    EventConsumers consumers_{host().eid};
};

TEST_F(ServerConsumers, whatAConsumerHasNotAcknowledgedIsDeliveredWithItsNextSubscription) {
    serve();
    {
        Peer first = consumer();
        tell({signalOf("acknowledged")});
        EXPECT_EQ(nextMessage(first).sequence(), 1U);
        acknowledge(first, 1);
        tell({signalOf("sent only")});
        EXPECT_EQ(nextMessage(first).sequence(), 2U);
    }
    Peer probe = connect();
    probe.shakeHands();
    ASSERT_TRUE(test::eventually([&] {
        bool away = false;
        onLoop([&] { away = consumers_.kept().at(0).away.has_value(); });
        return away;
    }));
    tell({signalOf("while it was away")});
    Peer second = consumer();
    const auto message = nextMessage(second);
    ASSERT_EQ(message.events_size(), 1);
    EXPECT_EQ(message.events(0).resource_alert().text(), "while it was away (and 1 more)");
    EXPECT_EQ(message.sequence(), 1U);
}

TEST_F(ServerConsumers, oneThatDoesNotAcknowledgeGetsNoMoreThanItsWindowAndTheRestInCounts) {
    serve();
    Peer peer = consumer();
    constexpr std::uint64_t kAlerts = 3000;
    for (std::uint64_t i = 0; i < kAlerts; ++i) {
        tell({signalOf("oom")});
    }
    std::uint64_t signals = 0;
    for (std::size_t i = 0; i < EventConsumer::kWindowMessages; ++i) {
        signals += standsFor(nextMessage(peer).events(0).resource_alert().text());
    }
    EXPECT_LT(signals, kAlerts);
    EXPECT_TRUE(peer.isServed()) << "nothing but the answer comes";
    acknowledge(peer, 1);
    while (signals < kAlerts) {
        signals += standsFor(nextMessage(peer).events(0).resource_alert().text());
    }
    EXPECT_EQ(signals, kAlerts);
}

TEST_F(ServerConsumers, twoOfOneNameAreWarnedOfAndTheSecondTakesOverWhenTheFirstGoes) {
    serve();
    auto first = std::make_unique<Peer>(consumer());
    Peer second = consumer();
    tell({signalOf("for both")});
    EXPECT_EQ(nextMessage(*first).sequence(), 1U);
    EXPECT_EQ(nextMessage(second).sequence(), 0U);
    first.reset();
    EXPECT_EQ(nextMessage(second).sequence(), 1U) << "what the first has not acknowledged";
    const std::string log = logged();
    EXPECT_THAT(log, HasSubstr("are both subscribed as \"kxsnmp\": every alert is reported twice"));
    EXPECT_THAT(log, HasSubstr("has gone; peer \"tester\""));
}

TEST_F(ServerEvents, whatHappensAtOnceDropsNobodyHoweverMuchItIs) {
    settings_.limits.maxUnsentEventBytes = std::size_t{100} * 1024;
    serve();
    publish({});
    Peer peer = subscriber();
    std::vector<std::string> names;
    for (int i = 0; i < 10'000; ++i) {
        names.push_back("a container with a longer name " + std::to_string(i));
    }
    publish(names);
    std::size_t got = 0;
    while (got < names.size()) {
        const auto events = nextEvents(peer);
        ASSERT_FALSE(events.empty());
        got += events.size();
    }
    EXPECT_EQ(got, names.size());
    EXPECT_EQ(logged(), "");
}

TEST_F(ServerEvents, whatHappensAtOnceIsBoundedAsForAllConnections) {
    settings_.limits.maxUnsentBytes = std::size_t{500} * 1024;
    serve();
    Peer peer = subscriber();
    tell(std::vector<AlertSignal>(20, signalOf(std::string(100'000, 'x'))));
    while (peer.receive()) {
    }
    expectOneLine({"dropped", "512000 bytes"});
}

// ---- alerts that a client had raised ----

TEST_F(ServerEvents, anAlertIsRaisedForAnIdentifierWhetherItIsKnownOrNot) {
    serve();
    Peer peer = connect();
    peer.shakeHands();
    wire::AlertRaise request = raiseOf(std::string("nul \0 quote \" \xff", 15));
    request.set_code(std::numeric_limits<std::int32_t>::min());
    request.set_value(std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(answerTo(peer, request), "");
    request = raiseOf("");
    request.set_eid(settings_.serverEid.toWire());
    EXPECT_EQ(answerTo(peer, request), "");
    EXPECT_THAT(
        raiser_.signals_,
        ElementsAre(AlertSignal{Eid::fromName("machine", "web"), "raised", std::numeric_limits<std::int32_t>::min(),
                                std::string("nul \0 quote \" \xff", 15), std::numeric_limits<std::int64_t>::max()},
                    AlertSignal{settings_.serverEid, "raised", 0, "", 0}));
}

TEST_F(ServerEvents, aNumberMeansTheFirstContainerThatHasIt) {
    serve();
    HostImage image;
    for (const auto& [name, veid] : {std::pair("a", 7), std::pair("b", 101), std::pair("c", 101)}) {
        Environment made;
        made.eid = Eid::fromName("machine", name);
        made.veid = veid;
        image.environments.push_back(made);
    }
    onLoop([&] { server_->publish(content().apply(std::move(image))); });
    Peer peer = connect();
    peer.shakeHands();
    wire::AlertRaise request;
    request.set_veid(101);
    EXPECT_EQ(answerTo(peer, request), "");
    ASSERT_THAT(raiser_.signals_, SizeIs(1));
    EXPECT_EQ(raiser_.signals_[0].about, Eid::fromName("machine", "b"));
    request.set_veid(102);
    EXPECT_THAT(answerTo(peer, request), HasSubstr("no container with the number 102"));
    request.set_veid(0);
    EXPECT_THAT(answerTo(peer, request), HasSubstr("no container with the number 0"));
    EXPECT_THAT(raiser_.signals_, SizeIs(1));
}

TEST_F(ServerEvents, aRequestThatIsNotCompleteIsRefusedInWordsAndTheConnectionGoesOn) {
    serve();
    Peer peer = connect();
    peer.shakeHands();
    EXPECT_THAT(answerTo(peer, wire::AlertRaise()), HasSubstr("no target"));
    wire::AlertRaise request;
    for (const std::size_t bytes : {0, 15, 17}) {
        request.set_eid(std::string(bytes, 'e'));
        EXPECT_THAT(answerTo(peer, request), HasSubstr("has " + std::to_string(bytes))) << bytes;
    }
    EXPECT_THAT(answerTo(peer, raiseOf(std::string(kMaxAlertTextBytes + 1, 'x'))), HasSubstr("262145 bytes"));
    EXPECT_THAT(raiser_.signals_, IsEmpty());
    EXPECT_EQ(answerTo(peer, raiseOf(std::string(kMaxAlertTextBytes, 'x'))), "");
    EXPECT_EQ(logged(), "");
}

TEST_F(ServerEvents, whereAlertsCannotBeRaisedTheReasonIsTold) {
    raiser_.why_ = "this one is real";
    serve();
    Peer peer = connect();
    peer.shakeHands();
    EXPECT_EQ(answerTo(peer, raiseOf("oom")), "this one is real");
    wire::AlertRaise request;
    request.set_veid(4711);
    EXPECT_EQ(answerTo(peer, request), "this one is real") << "it does not matter that there is no such container";
    EXPECT_THAT(raiser_.signals_, IsEmpty());
}

TEST_F(ServerEvents, aServerWithoutAnybodyToRaiseAlertsSaysSo) {
    settings_.raiser = nullptr;
    serve();
    Peer peer = connect();
    peer.shakeHands();
    EXPECT_THAT(answerTo(peer, raiseOf("oom")), HasSubstr("nobody"));
}

TEST_F(ServerEvents, beforeTheHelloNothingIsSubscribedTo) {
    serve();
    Peer peer = connect();
    subscribe(peer);
    expectRefusal(peer, wire::ERROR_MALFORMED);
}

}  // namespace
}  // namespace kx::agent
