#include "agent/alerts/AlertBacklog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/alerts/Alerts.h"

namespace kx::agent {
namespace {

using test::clearOf;
using test::eidOf;
using test::signalOf;
using testing::ElementsAre;
using testing::SizeIs;

AlertSignal about(const std::string& name, const std::string& text, std::int32_t code = kAlertCritical) {
    return {eidOf(name), "source", code, text, 0};
}

std::vector<std::string> textsOf(const std::vector<DatedAlert>& alerts) {
    std::vector<std::string> texts;
    std::transform(alerts.begin(), alerts.end(), std::back_inserter(texts),
                   [](const DatedAlert& alert) { return textOf(alert); });
    return texts;
}

TEST(AlertBacklog, TheLatestAlertOfASourceStandsForThoseBeforeInTheirPlace) {
    AlertBacklog backlog(eidOf("host"), {});
    backlog.add({about("web", "one"), 2, {}});
    backlog.add({about("db", "other"), 0, {}});
    backlog.add({about("web", "two"), 1, {}});
    EXPECT_TRUE(backlog.holds(eidOf("web")));
    EXPECT_THAT(textsOf(backlog.take(10, 1000)), ElementsAre("two (and 4 more)", "other"));
    EXPECT_FALSE(backlog.holds(eidOf("web")));
    EXPECT_TRUE(backlog.empty());
}

TEST(AlertBacklog, TakesAsManyAsFitAndAtLeastOne) {
    AlertBacklog backlog(eidOf("host"), {});
    for (int i = 0; i < 4; ++i) {
        backlog.add({about(std::to_string(i), std::string(100, 'x')), 0, {}});
    }
    EXPECT_THAT(backlog.take(10, 1), SizeIs(1));
    EXPECT_THAT(backlog.take(10, 250), SizeIs(2));
    EXPECT_THAT(backlog.take(10, 250), SizeIs(1));
    EXPECT_THAT(backlog.take(10, 250), SizeIs(0));
}

TEST(AlertBacklog, BeyondItsBoundsAlertsAreCountedAndWhatClearsIsKept) {
    AlertBacklog backlog(eidOf("host"), {2, 1000});
    for (int i = 0; i < 5; ++i) {
        backlog.add({about(std::to_string(i), "raised"), 0, {}});
    }
    backlog.add({about("0", std::string(2000, 'x')), 0, {}});
    backlog.add({about("9", "cleared", kAlertClear), 0, {}});
    const std::string overflow = std::string(AlertBacklog::kOverflowText) + " (and 3 more)";
    EXPECT_THAT(textsOf(backlog.take(10, 1000)), ElementsAre("raised", "raised", overflow, "cleared"));
    EXPECT_EQ(backlog.overflown(), 4U);
}

}  // namespace
}  // namespace kx::agent
