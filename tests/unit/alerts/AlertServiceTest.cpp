// The engine on a real event loop and clock: short limits, and waiting for what they bring.
#include "agent/alerts/AlertService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/alerts/Alerts.h"

namespace kx::agent {
namespace {

using test::eidOf;
using test::milliseconds;
using test::signalOf;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::chrono::seconds kPatience{20};

class AlertServiceTest : public testing::Test {
protected:
    void start(const AlertLimits& limits) {
        service_ = std::make_unique<AlertService>(io_, eidOf("host"), limits, [this](const std::vector<Alert>& alerts) {
            EXPECT_FALSE(alerts.empty());
            for (const Alert& alert : alerts) {
                texts_.push_back(textOf(alert));
            }
        });
    }

    /// @return whether so many were told in the end
    bool tells(std::size_t count) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (texts_.size() < count && std::chrono::steady_clock::now() < deadline) {
            io_.restart();
            io_.run_one_for(milliseconds(100));
        }
        return texts_.size() >= count;
    }

    boost::asio::io_context io_;
    std::vector<std::string> texts_;
    std::unique_ptr<AlertService> service_;
};

TEST_F(AlertServiceTest, TellsAtOnceWhatMayBeTold) {
    start({});
    service_->take(signalOf("oom"));
    EXPECT_THAT(texts_, ElementsAre("oom"));
}

TEST_F(AlertServiceTest, WakesUpForWhatBecomesDue) {
    // So long that all three are taken within it, and so short that it is waited for.
    start({milliseconds(500), 50.0, 100});
    service_->take(signalOf("oom"));
    service_->take(signalOf("oom"));
    service_->take(signalOf("oom"));
    EXPECT_THAT(texts_, ElementsAre("oom"));
    ASSERT_TRUE(tells(2));
    EXPECT_THAT(texts_, ElementsAre("oom", "oom (and 1 more)"));
}

TEST_F(AlertServiceTest, WakesUpForThoseThatWait) {
    // So seldom that all three are taken before the next may be told.
    start({milliseconds(0), 5.0, 1});
    for (const std::string about : {"a", "b", "c"}) {
        service_->take(signalOf("oom of " + about, 0, kAlertCritical, about));
    }
    EXPECT_THAT(texts_, ElementsAre("oom of a"));
    ASSERT_TRUE(tells(3));
    EXPECT_THAT(texts_, ElementsAre("oom of a", "oom of b", "oom of c"));
}

TEST_F(AlertServiceTest, OtherLimitsHoldAtOnce) {
    start({std::chrono::hours(1), 50.0, 100});
    service_->take(signalOf("oom"));
    service_->take(signalOf("oom"));
    service_->setLimits({milliseconds(1), 50.0, 100});
    EXPECT_TRUE(tells(2));
}

TEST_F(AlertServiceTest, AStormIsOneLineInTheLog) {
    testing::internal::CaptureStderr();
    start({milliseconds(0), 1000.0, 1});
    for (int i = 0; i < 20; ++i) {
        service_->take(signalOf("oom", i, kAlertCritical, std::to_string(i)));
    }
    ASSERT_TRUE(tells(20));
    for (int i = 0; i < 5; ++i) {
        service_->take(signalOf("oom", i, kAlertCritical, std::to_string(i)));
    }
    ASSERT_TRUE(tells(25));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    EXPECT_THAT(log, HasSubstr("alerts come faster than 1000 a second"));
}

}  // namespace
}  // namespace kx::agent
