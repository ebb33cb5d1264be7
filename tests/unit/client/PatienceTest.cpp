#include <gtest/gtest.h>

#include "client/src/session/Patience.h"

namespace kx::client {
namespace {

using std::chrono::milliseconds;
using Outcome = Patience::Outcome;

constexpr milliseconds kFull{500};
constexpr milliseconds kSilence{5000};

class PatienceTest : public testing::Test {
protected:
    milliseconds left() const { return patience.left(now); }
    void pass(milliseconds time) { now += time; }
    /// A caller that waits as long as it may, at most `wanted`.
    milliseconds wait(milliseconds wanted, Outcome outcome) {
        const milliseconds waited = std::min(wanted, left());
        pass(waited);
        if (waited != milliseconds(0)) {
            patience.spend(waited, waited < wanted ? Outcome::TimedOut : outcome, now);
        }
        return waited;
    }

    Patience::Clock::time_point now = Patience::Clock::now();
    Patience patience{kFull, kSilence};
};

TEST_F(PatienceTest, GrantsOneFullWaitAndNoneWhileTheAgentIsSilent) {
    EXPECT_EQ(wait(kFull, Outcome::TimedOut), kFull);
    EXPECT_EQ(left(), milliseconds(0));
    pass(kSilence - milliseconds(1));
    EXPECT_EQ(left(), milliseconds(0));
    pass(milliseconds(1));
    EXPECT_EQ(left(), kFull);
}

TEST_F(PatienceTest, GrantsAnAgentThatHasSaidSomethingLittleAtFirstAndMoreWithTime) {
    wait(kFull, Outcome::TimedOut);
    patience.heard();
    EXPECT_EQ(left(), Patience::least);
    pass(milliseconds(400));
    EXPECT_EQ(left(), milliseconds(100));
    pass(milliseconds(1600));
    EXPECT_EQ(left(), kFull);
}

TEST_F(PatienceTest, AShortWaitThatTimesOutMakesTheAgentSilentAgain) {
    wait(kFull, Outcome::TimedOut);
    patience.heard();
    EXPECT_EQ(wait(kFull, Outcome::TimedOut), Patience::least);
    EXPECT_EQ(left(), milliseconds(0));
}

TEST_F(PatienceTest, AnAnswerEndsTheSilence) {
    wait(kFull, Outcome::TimedOut);
    patience.spend(milliseconds(1), Outcome::Answered, now);
    EXPECT_EQ(left(), Patience::least);
}

TEST_F(PatienceTest, QuickAnswersAndQuickFailuresCostNothing) {
    for (int i = 0; i < 1000; ++i) {
        wait(Patience::freeAnswer, Outcome::Answered);
        wait(Patience::freeFailure, Outcome::Failed);
    }
    EXPECT_EQ(left(), kFull);
}

TEST_F(PatienceTest, ThirtyWaitsStayBelowASecondWhateverTheAgentDoes) {
    for (const Outcome outcome : {Outcome::Answered, Outcome::Failed, Outcome::TimedOut}) {
        for (const int eachMs : {1, 5, 6, 10, 51, 200, 400, 499, 500}) {
            if (outcome == Outcome::Answered && milliseconds(eachMs) <= Patience::freeAnswer) {
                continue;  // an agent that works
            }
            pass(kSilence + kFull);
            milliseconds all{0};
            for (int i = 0; i < 30; ++i) {
                all += wait(milliseconds(eachMs), outcome);
                patience.heard();
            }
            EXPECT_LT(all, milliseconds(1000)) << eachMs << " ms each";
        }
    }
}

}  // namespace
}  // namespace kx::client
