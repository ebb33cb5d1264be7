#include "agent/alerts/EventConsumers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/alerts/Alerts.h"

namespace kx::agent {
namespace {

using test::eidOf;
using test::signalOf;
using testing::SizeIs;

constexpr WallTime kNow{std::chrono::hours(24 * 365 * 50)};

DatedAlert alertOf(const std::string& text) {
    return {signalOf(text), 0, kNow};
}

class EventConsumersTest : public testing::Test {
protected:
    EventConsumers consumers_{eidOf("host")};
};

TEST_F(EventConsumersTest, AlertsAreSentInMessagesUntilTheWindowIsFull) {
    EventConsumer* const consumer = consumers_.attach({"kxsnmp", 0}, kNow);
    ASSERT_NE(consumer, nullptr);
    for (int i = 0; i < 2000; ++i) {
        consumers_.add({{eidOf(std::to_string(i)), "source", kAlertCritical, "oom", 0}, 0, kNow});
    }
    EXPECT_THAT(consumer->next().alerts, SizeIs(EventConsumer::kMessageAlerts));
    EXPECT_THAT(consumer->next().alerts, SizeIs(EventConsumer::kMessageAlerts));
    EXPECT_FALSE(consumer->hasNext());
    consumer->acknowledge(1);
    EXPECT_TRUE(consumer->hasNext());
    EXPECT_EQ(consumer->next().sequence, 3U);
    EXPECT_FALSE(consumer->holds(eidOf("0"))) << "it was acknowledged";
    EXPECT_TRUE(consumer->holds(eidOf("500"))) << "it was only sent";
    EXPECT_TRUE(consumers_.isOutstanding(eidOf("1999")));
}

TEST_F(EventConsumersTest, WhatIsKeptIsThereAfterARestartAndCountsOnce) {
    EventConsumer* const consumer = consumers_.attach({"kxsnmp", 0}, kNow);
    consumers_.add(alertOf("one"));
    consumer->next();
    consumers_.add(alertOf("two"));
    EventConsumers fresh(eidOf("host"));
    fresh.restore(consumers_.kept(), kNow);
    const auto kept = fresh.kept();
    ASSERT_THAT(kept, SizeIs(1));
    ASSERT_THAT(kept[0].alerts, SizeIs(1));
    EXPECT_EQ(textOf(kept[0].alerts[0]), "two (and 1 more)");
    EXPECT_EQ(kept[0].away, kNow) << "it was connected when the former agent ended";
}

TEST_F(EventConsumersTest, WhoIsAwayTooLongIsForgottenAndWhoIsConnectedIsNot) {
    consumers_.attach({"connected", 0}, kNow);
    consumers_.detach(*consumers_.attach({"away", 0}, kNow), kNow);
    consumers_.forgetAway(kNow + EventConsumers::kForgetAfter);
    EXPECT_THAT(consumers_.kept(), SizeIs(2));
    consumers_.forgetAway(kNow + EventConsumers::kForgetAfter + std::chrono::seconds(1));
    ASSERT_THAT(consumers_.kept(), SizeIs(1));
    EXPECT_EQ(consumers_.kept()[0].id.name, "connected");
}

TEST_F(EventConsumersTest, AUserHasAFewAndCannotPushOutOthers) {
    consumers_.detach(*consumers_.attach({"kxsnmp", 0}, kNow), kNow);
    for (uid_t uid = 1000; uid < 1005; ++uid) {
        for (const char* name : {"a", "b"}) {
            consumers_.attach({name, uid}, kNow);
        }
    }
    EXPECT_EQ(consumers_.attach({"c", 1000}, kNow), nullptr);
    EXPECT_THAT(consumers_.kept(), SizeIs(EventConsumers::kMost));
    EXPECT_NE(consumers_.attach({"kxsnmp", 0}, kNow), nullptr);
    EXPECT_EQ(consumers_.attach({"kxsnmp", 0}, kNow), nullptr) << "it is connected";
    EXPECT_EQ(consumers_.attach({"other", 0}, kNow), nullptr) << "all are connected";
}

TEST_F(EventConsumersTest, TheOneThatHasBeenAwayLongestMakesPlace) {
    for (int i = 0; i < 8; ++i) {
        const auto since = kNow + std::chrono::seconds(i == 3 ? 0 : i + 1);
        consumers_.detach(*consumers_.attach({std::to_string(i), 0}, since), since);
    }
    EXPECT_NE(consumers_.attach({"new", 0}, kNow), nullptr);
    for (const KeptConsumer& kept : consumers_.kept()) {
        EXPECT_NE(kept.id.name, "3");
    }
}

}  // namespace
}  // namespace kx::agent
