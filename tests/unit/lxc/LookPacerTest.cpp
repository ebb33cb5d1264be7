#include "agent/backends/lxc/LookPacer.h"

#include <gtest/gtest.h>

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;

constexpr Clock::time_point kStart{std::chrono::hours(1)};

/// Looks at something that has changed again whenever a look is over.
int looksOfSomethingRestless(LookPacer& pacer, Clock::time_point from, Clock::duration span) {
    int looks = 0;
    for (auto now = from; (now = pacer.dueAfter(now)) < from + span; ++looks) {
        pacer.looked(now);
    }
    return looks;
}

TEST(LookPacerTest, aChangeIsLookedAtSoon) {
    LookPacer pacer;
    EXPECT_EQ(pacer.dueAfter(kStart), kStart + LookPacer::kSoon);
    pacer.looked(kStart);
    EXPECT_EQ(pacer.dueAfter(kStart + milliseconds(5)), kStart + milliseconds(5) + LookPacer::kSoon);
}

TEST(LookPacerTest, changesNowAndThenAreAlwaysLookedAtSoon) {
    LookPacer pacer;
    for (auto now = kStart; now < kStart + std::chrono::hours(1); now += LookPacer::kPace) {
        ASSERT_EQ(pacer.dueAfter(now), now + LookPacer::kSoon);
        pacer.looked(now + LookPacer::kSoon);
    }
}

TEST(LookPacerTest, changesThatNeverEndAreLookedAtSoonAFewTimesAndThenSlowly) {
    LookPacer pacer;
    const auto burst = LookPacer::kSoonLooks * LookPacer::kSoon;
    const int soon = looksOfSomethingRestless(pacer, kStart, burst);
    EXPECT_GE(soon, LookPacer::kSoonLooks - 1);
    EXPECT_LE(soon, LookPacer::kSoonLooks);
    const int later = looksOfSomethingRestless(pacer, kStart + burst, std::chrono::minutes(1));
    EXPECT_GE(later, 119) << "two a second";
    EXPECT_LE(later, 125);
}

TEST(LookPacerTest, noChangeIsPutOffForLong) {
    LookPacer pacer;
    auto now = kStart;
    for (int i = 0; i < 1000; ++i) {
        const auto due = pacer.dueAfter(now);
        ASSERT_GE(due, now + LookPacer::kSoon);
        ASSERT_LE(due, now + LookPacer::kPace + LookPacer::kGrid) << "look " << i;
        now = due;
        pacer.looked(now);
    }
}

TEST(LookPacerTest, restIsRewarded) {
    LookPacer pacer;
    looksOfSomethingRestless(pacer, kStart, std::chrono::minutes(1));
    const auto rested = kStart + std::chrono::minutes(1) + LookPacer::kSoonLooks * LookPacer::kPace;
    EXPECT_EQ(pacer.dueAfter(rested), rested + LookPacer::kSoon);
    EXPECT_GE(looksOfSomethingRestless(pacer, rested, std::chrono::seconds(1)), LookPacer::kSoonLooks - 1);
}

TEST(LookPacerTest, thoseWhoAreLookedAtSlowlyAreLookedAtTogether) {
    for (const milliseconds later : {milliseconds(0), milliseconds(77), milliseconds(200)}) {
        LookPacer pacer;
        auto now = kStart + later;
        for (int i = 0; i < 2 * LookPacer::kSoonLooks; ++i) {
            pacer.looked(now);
            now = pacer.dueAfter(now);
        }
        EXPECT_EQ(now.time_since_epoch() % LookPacer::kGrid, Clock::duration::zero());
    }
}

}  // namespace
}  // namespace kx::agent::lxc
