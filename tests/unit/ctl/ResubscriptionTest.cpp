#include "ctl/events/Resubscription.h"

#include <gtest/gtest.h>

#include <vector>

namespace kx::ctl {
namespace {

using std::chrono::seconds;
using TimePoint = Resubscription::TimePoint;

class ResubscriptionTest : public testing::Test {
protected:
    /// Fails and says after how many seconds it is due again.
    long failedAndDueAfter() {
        again.failed(now);
        return std::chrono::duration_cast<seconds>(*again.due() - now).count();
    }

    TimePoint now{std::chrono::hours(1)};
    Resubscription again;
};

TEST_F(ResubscriptionTest, IsDueLaterAfterEachFailureAndAtMostHalfAMinute) {
    std::vector<long> delays;
    for (int i = 0; i < 8; ++i) {
        delays.push_back(failedAndDueAfter());
        again.begin();
    }
    EXPECT_EQ(delays, (std::vector<long>{1, 2, 4, 8, 16, 30, 30, 30}));
}

TEST_F(ResubscriptionTest, BeginsWithTheShortestDelayAgainOnceItHasStood) {
    failedAndDueAfter();
    failedAndDueAfter();
    again.begin();
    again.succeeded();
    EXPECT_EQ(failedAndDueAfter(), 1);
}

TEST_F(ResubscriptionTest, IsNotDueWhileAnAttemptIsUnderWay) {
    EXPECT_FALSE(again.due());
    again.failed(now);
    again.begin();
    EXPECT_FALSE(again.due());
    again.linkBack(now);
    EXPECT_FALSE(again.due()) << "the attempt will succeed or fail by itself";
}

TEST_F(ResubscriptionTest, IsDueAtOnceWhenTheConnectionIsBack) {
    for (int i = 0; i < 6; ++i) {
        again.failed(now);
    }
    again.linkBack(now + seconds(2));
    EXPECT_EQ(again.due(), now + seconds(2));
}

TEST_F(ResubscriptionTest, TellsALossOnceUntilItHasStoodAgain) {
    EXPECT_FALSE(again.failed(now)) << "it has never stood";
    again.succeeded();
    EXPECT_TRUE(again.failed(now));
    EXPECT_FALSE(again.failed(now));
    again.succeeded();
    EXPECT_TRUE(again.failed(now));
}

}  // namespace
}  // namespace kx::ctl
