#include "agent/server/EventFrames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "tests/unit/agent/Bodies.h"
#include "wire/Protocol.h"

namespace kx::agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::decode;
using testing::IsEmpty;
using testing::SizeIs;

constexpr WallTime kNow{milliseconds(1'700'000'000'123)};

DatedAlert alertOf(const std::string& text) {
    return {{Eid::fromName("test machine", "web"), "memory.oom", kAlertCritical, text, 7}, 0, kNow};
}

EnvironmentChange changeOf(const std::string& name, ChangeKind kind = ChangeKind::Modified) {
    return {Eid::fromName("test machine", name), kind, name, -7, 5};
}

std::vector<wire::Event> eventsIn(const std::vector<FrameBody>& bodies) {
    std::vector<wire::Event> events;
    for (const FrameBody& body : bodies) {
        const wire::Frame frame = decode(body);
        EXPECT_TRUE(frame.has_event_message());
        EXPECT_GT(frame.event_message().events_size(), 0);
        events.insert(events.end(), frame.event_message().events().begin(), frame.event_message().events().end());
    }
    return events;
}

TEST(EventFrames, NothingMakesNoFrame) {
    EXPECT_THAT(encodeEvents(std::vector<DatedAlert>()), IsEmpty());
    EXPECT_THAT(encodeEvents(std::vector<EnvironmentChange>(), kNow), IsEmpty());
}

TEST(EventFrames, AnAlertArrivesWholeWhateverIsInIt) {
    DatedAlert alert = alertOf(std::string("nul \0 quote \" not utf-8 \xff", 24));
    alert.signal.code = std::numeric_limits<std::int32_t>::min();
    alert.signal.value = std::numeric_limits<std::int64_t>::min();
    const auto events = eventsIn(encodeEvents(std::vector{alert}));
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_EQ(events[0].type(), wire::kEventTypeResourceAlert);
    EXPECT_EQ(events[0].time_ms(), 1'700'000'000'123U);
    EXPECT_FALSE(events[0].has_environment_change());
    EXPECT_EQ(events[0].resource_alert().eid(), alert.signal.about.toWire());
    EXPECT_EQ(events[0].resource_alert().code(), alert.signal.code);
    EXPECT_EQ(events[0].resource_alert().text(), alert.signal.text);
    EXPECT_EQ(events[0].resource_alert().value(), alert.signal.value);
}

TEST(EventFrames, AnAlertHasTheTimeAtWhichItHappened) {
    DatedAlert alert = alertOf("oom");
    alert.happened = kNow - seconds(3);
    EXPECT_EQ(eventsIn(encodeEvents(std::vector{alert})).at(0).time_ms(), 1'699'999'997'123U);
}

TEST(EventFrames, AClockBeforeItsEpochIsShownAsTheEpoch) {
    DatedAlert alert = alertOf("oom");
    alert.happened = WallTime(seconds(-1));
    EXPECT_EQ(eventsIn(encodeEvents(std::vector{alert})).at(0).time_ms(), 0U);
}

TEST(EventFrames, AChangeTellsWhichEnvironmentAndHowItIsNow) {
    const std::vector changes{changeOf("a", ChangeKind::Removed), changeOf("b", ChangeKind::Modified),
                              changeOf("c", ChangeKind::Added)};
    const auto events = eventsIn(encodeEvents(changes, kNow));
    ASSERT_THAT(events, SizeIs(3));
    const wire::EnvironmentChangeKind kinds[] = {wire::CHANGE_REMOVED, wire::CHANGE_MODIFIED, wire::CHANGE_ADDED};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(events[i].type(), wire::kEventTypeEnvironmentChange);
        EXPECT_EQ(events[i].time_ms(), 1'700'000'000'123U);
        EXPECT_FALSE(events[i].has_resource_alert());
        const wire::EnvironmentChange& change = events[i].environment_change();
        EXPECT_EQ(change.eid(), changes[i].eid.toWire());
        EXPECT_EQ(change.kind(), kinds[i]);
        EXPECT_EQ(change.name(), changes[i].name);
        EXPECT_EQ(change.state(), -7);
        EXPECT_EQ(change.transition(), 5);
    }
}

TEST(EventFrames, ManyEventsShareAFrameUntilItIsFull) {
    std::vector<EnvironmentChange> changes;
    for (int i = 0; i < 20'000; ++i) {
        changes.push_back(changeOf("container " + std::to_string(i)));
    }
    const auto bodies = encodeEvents(changes, kNow);
    EXPECT_GT(bodies.size(), 2U);
    EXPECT_LT(bodies.size(), 20U);
    for (const FrameBody& body : bodies) {
        EXPECT_LE(body->size(), kEventFrameBytes);
    }
    const auto events = eventsIn(bodies);
    ASSERT_THAT(events, SizeIs(changes.size()));
    for (std::size_t i = 0; i < changes.size(); ++i) {
        ASSERT_EQ(events[i].environment_change().name(), changes[i].name) << "in order";
    }
}

TEST(EventFrames, EventsLargerThanAFullFrameHaveOneEach) {
    const std::vector changes{changeOf(std::string(8'000'000, 'a')), changeOf("b"),
                              changeOf(std::string(8'000'000, 'c'))};
    const auto bodies = encodeEvents(changes, kNow);
    EXPECT_THAT(bodies, SizeIs(3));
    EXPECT_THAT(eventsIn(bodies), SizeIs(3));
}

TEST(EventFrames, TheLongestAlertsFitOneByOne) {
    const std::vector alerts(3, alertOf(std::string(kMaxAlertTextBytes, 'x') + " (and 18446744073709551615 more)"));
    const auto bodies = encodeEvents(alerts);
    EXPECT_THAT(bodies, SizeIs(3));
    EXPECT_EQ(eventsIn(bodies).at(2).resource_alert().text(), alerts[2].signal.text);
}

}  // namespace
}  // namespace kx::agent
