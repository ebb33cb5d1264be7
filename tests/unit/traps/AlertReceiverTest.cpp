// Alerts of an agent, the whole way from its socket to the trap.
#include "daemon/traps/SNMPVeQoSAlertReceiver.h"

#include <gmock/gmock.h>

#include <boost/make_shared.hpp>
#include <future>
#include <limits>
#include <mutex>

#include "client/src/loop/Loop.h"
#include "daemon/core/MibModule.h"
#include "daemon/link/SNMPNodeLocal.h"
#include "daemon/traps/InitTraps.h"
#include "daemon/traps/SNMPNotificationData.h"
#include "tests/support/AgentScripts.h"
#include "tests/unit/traps/TrapCapture.h"

namespace kx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kSocketPath = "/var/opt/orma/agent/agent.sock";

const Oid kVeid = {1, 3, 6, 1, 4, 1, 53864, 1, 1, 4, 1, 1};
const Oid kText = {1, 3, 6, 1, 4, 1, 53864, 1, 1, 9};
const Oid kCode = {1, 3, 6, 1, 4, 1, 53864, 1, 1, 10};
const Oid kValue = {1, 3, 6, 1, 4, 1, 53864, 1, 1, 11};

std::string nativeLong(long value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string counter64(std::int64_t value) {
    const auto bits = static_cast<std::uint64_t>(value);
    const auto half = [](std::uint64_t from) { return nativeLong(static_cast<std::int32_t>(from)); };
    return half(bits >> 32) + half(bits & 0xffffffffU);
}

wire::Environment container(int number, std::optional<int> veid) {
    wire::Environment env = wireEnv(number);
    if (veid) {
        env.mutable_configuration()->set_veid(*veid);
    }
    return env;
}

KXLEID eidOf(const std::string& bytes) {
    KXLGUIDBase::Bytes eid{};
    std::copy(bytes.begin(), bytes.end(), eid.begin());
    return KXLEID(eid);
}

const wire::Environment kWeb = container(1, 101);
const wire::Environment kUnnumbered = container(2, std::nullopt);

/// The host itself is in the list, too.
wire::Environment host() {
    wire::Environment env = wireEnv(0, "host");
    env.set_eid(kServerEidBytes);
    return env;
}

/// An agent with two containers that sends what it is told to those who subscribe.
class AlertingAgent {
public:
    /// Sends an event to the connection of the moment; waits until there is one.
    void send(const wire::Event& event) {
        eventually([&] { return hasSubscriber(); });
        const std::lock_guard guard(lock_);
        subscriber_->send(eventFrame({event}));
    }
    /// Ends the event connection of the moment; the next one is another.
    void hangUp() {
        eventually([&] { return hasSubscriber(); });
        const std::lock_guard guard(lock_);
        subscriber_->hangUp();
        subscriber_ = nullptr;
    }
    int subscriptions() const { return subscriptions_; }

private:
    bool hasSubscriber() {
        const std::lock_guard guard(lock_);
        return subscriber_ != nullptr;
    }
    void serve(PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (!request.has_event_subscribe()) {
            if (serveFirstData(peer, {kWeb, kUnnumbered, host()})) {
                answerUntilClosed(peer);
            }
            return;
        }
        acceptSubscription(peer, request);
        {
            const std::lock_guard guard(lock_);
            subscriber_ = &peer;
            ++subscriptions_;
        }
        peer.readUntilClosed();
        const std::lock_guard guard(lock_);
        subscriber_ = subscriber_ == &peer ? nullptr : subscriber_;
    }

    std::mutex lock_;
    PeerSocket* subscriber_ = nullptr;
    std::atomic<int> subscriptions_{0};
    ScriptedAgent agent_{kSocketPath, [this](PeerSocket& peer) { serve(peer); }};
};

// One link a process: once destroyed it is never made again. So all tests share it, with its agent.
class Alerts : public testing::Test {
protected:
    static void SetUpTestSuite() {
        init_traps();  // before there is an agent
        agent = std::make_unique<AlertingAgent>();
        SNMPNodeLocal::instance()->getAccessPoint();
    }
    static void TearDownTestSuite() {
        finalize_mib_module();
        EXPECT_EQ(SNMPNodeLocal::instance(), nullptr) << "it is over before the agent library is";
        agent.reset();
    }

    /// The last of the traps, once there are as many as expected.
    std::vector<Trap> trapsAfter(std::size_t expected) {
        EXPECT_TRUE(eventually([&] { return capture.traps().size() >= expected; }));
        return capture.traps();
    }
    /// Sends events that must have no effect, and one that has: so all of them have been handled.
    void expectNoTrapOf(const std::vector<wire::Event>& events) {
        for (const wire::Event& event : events) {
            agent->send(event);
        }
        agent->send(alertEvent(kWeb.eid(), "end"));
        const auto traps = trapsAfter(1);
        ASSERT_THAT(traps, SizeIs(1));
        EXPECT_EQ(traps[0].variables[1].value, "end");
    }

    static inline std::unique_ptr<AlertingAgent> agent;
    TrapCapture capture;
};

TEST_F(Alerts, AboutAContainerBecomeATrapWithItsNumberAndTheAlertsThreeParts) {
    agent->send(alertEvent(kWeb.eid(), "out of memory", 2, 17));
    const auto traps = trapsAfter(1);
    ASSERT_THAT(traps, SizeIs(1));
    EXPECT_THAT(traps[0].enterprise, ElementsAre(1, 3, 6, 1, 4, 1, 53864, 2));
    EXPECT_EQ(traps[0].genericTrap, 6);
    EXPECT_EQ(traps[0].specificTrap, 1);
    EXPECT_THAT(traps[0].variables, ElementsAre(TrapVariable{kVeid, ASN_UNSIGNED, nativeLong(101)},
                                                TrapVariable{kText, ASN_OCTET_STR, "out of memory"},
                                                TrapVariable{kCode, ASN_INTEGER, nativeLong(2)},
                                                TrapVariable{kValue, ASN_COUNTER64, counter64(17)}));
}

TEST_F(Alerts, AreSentOnTheThreadOfTheEventLoop) {
    std::promise<std::thread::id> loopsThread;
    SNMPNodeLocal::instance()->getAccessPoint()->getAccess()->getEventLoop()->loop()->post(
        [&] { loopsThread.set_value(std::this_thread::get_id()); });
    agent->send(alertEvent(kWeb.eid(), "text"));
    const auto traps = trapsAfter(1);
    ASSERT_THAT(traps, SizeIs(1));
    EXPECT_EQ(traps[0].thread, loopsThread.get_future().get());
    EXPECT_NE(traps[0].thread, std::this_thread::get_id());
}

TEST_F(Alerts, CarryTheirTextByteForByte) {
    const std::vector<std::string> texts = {"",         std::string("\0nul\0", 5), "\"quoted\" 'too'", "größe 日本\n",
                                            "\xff\xfe", std::string(5000, 'x')};
    for (const std::string& text : texts) {
        agent->send(alertEvent(kWeb.eid(), text));
    }
    const auto traps = trapsAfter(texts.size());
    ASSERT_THAT(traps, SizeIs(texts.size()));
    for (std::size_t i = 0; i < texts.size(); ++i) {
        EXPECT_EQ(traps[i].variables[1].value, texts[i]);
    }
}

TEST_F(Alerts, CarryTheLargestAndTheSmallestNumbers) {
    using Code = std::numeric_limits<std::int32_t>;
    using Value = std::numeric_limits<std::int64_t>;
    agent->send(alertEvent(kWeb.eid(), "", Code::max(), Value::max()));
    agent->send(alertEvent(kWeb.eid(), "", Code::min(), Value::min()));
    agent->send(alertEvent(kWeb.eid(), "", -1, -1));
    const auto traps = trapsAfter(3);
    ASSERT_THAT(traps, SizeIs(3));
    EXPECT_EQ(traps[0].variables[2].value, nativeLong(Code::max()));
    EXPECT_EQ(traps[0].variables[3].value, counter64(Value::max()));
    EXPECT_EQ(traps[1].variables[2].value, nativeLong(Code::min()));
    EXPECT_EQ(traps[1].variables[3].value, counter64(Value::min()));
    EXPECT_EQ(traps[2].variables[2].value, nativeLong(-1));
    EXPECT_EQ(traps[2].variables[3].value, counter64(-1));
}

TEST_F(Alerts, AboutAContainerWithoutANumberCarryMinusOne) {
    agent->send(alertEvent(kUnnumbered.eid(), "text"));
    const auto traps = trapsAfter(1);
    EXPECT_EQ(traps[0].variables[0], (TrapVariable{kVeid, ASN_UNSIGNED, nativeLong(-1)}));
}

TEST_F(Alerts, AboutTheHostItselfGiveNoTrap) {
    ASSERT_TRUE(SNMPNodeLocal::instance()->getEnvCache()->getEnvCopy(eidOf(kServerEidBytes)));
    expectNoTrapOf({alertEvent(kServerEidBytes, "the host's")});
}

TEST_F(Alerts, AboutAnUnknownEnvironmentGiveNoTrap) {
    expectNoTrapOf({alertEvent(std::string(16, '\x77'), "unknown"), alertEvent(std::string(16, '\0'), "invalid")});
}

TEST_F(Alerts, AreTheOnlyEventsThatGiveATrap) {
    wire::Event change;
    change.set_type("environment_change");
    change.mutable_environment_change()->set_eid(kWeb.eid());
    wire::Event unknown = alertEvent(kWeb.eid(), "unknown");
    unknown.set_type("of tomorrow");
    wire::Event notification = alertEvent(kWeb.eid(), "a notification of somebody else's");
    notification.set_type("ve_qos_notification");
    expectNoTrapOf({change, unknown, notification});
}

TEST_F(Alerts, ComeAfterTenReconnectionsEachOnce) {
    for (int round = 0; round < 10; ++round) {
        const int before = agent->subscriptions();
        agent->hangUp();
        ASSERT_TRUE(eventually([&] { return agent->subscriptions() > before; }));
        agent->send(alertEvent(kWeb.eid(), std::to_string(round)));
        ASSERT_TRUE(eventually([&] { return capture.traps().size() == static_cast<std::size_t>(round) + 1; }));
        EXPECT_EQ(capture.traps().back().variables[1].value, std::to_string(round));
    }
}

// ---- the receiver itself
// ----------------------------------------------------------------------------------------------

TEST_F(Alerts, OfAReceiverCalledByHandArePassedOverWithoutAnAlertInThem) {
    SNMPVeQoSAlertReceiver receiver;
    receiver.receive(KXLEvent("resource_alert", nullptr));
    receiver.receive(KXLEvent("resource_alert", boost::make_shared<SNMPNotificationData>()));
    receiver.receive(KXLEvent("ve_qos_notification", boost::make_shared<SNMPNotificationData>()));
    const auto alert = boost::make_shared<KXLResourceAlertData>();
    alert->eid = eidOf(kWeb.eid());
    receiver.receive(KXLEvent("resource_alert2", alert));
    EXPECT_THAT(capture.traps(), IsEmpty());
    const KXLEvent event("resource_alert", alert);
    receiver.receive(event);
    EXPECT_THAT(capture.traps(), SizeIs(1));
    EXPECT_EQ(event.getCategory(), "resource_alert") << "the event itself is left as it is";
    EXPECT_EQ(event.getData(), alert);
}

}  // namespace
}  // namespace kx::test
