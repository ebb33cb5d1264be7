#include "agent/alerts/TokenBucket.h"

#include <gtest/gtest.h>

namespace kx::agent {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr TokenBucket::TimePoint kStart{std::chrono::hours(1)};

AlertLimits limitsOf(double perSecond, std::uint32_t burst) {
    return {milliseconds(0), perSecond, burst};
}

int taken(TokenBucket& bucket, TokenBucket::TimePoint now) {
    int count = 0;
    while (bucket.take(now)) {
        ++count;
    }
    return count;
}

TEST(TokenBucket, BeginsFull) {
    TokenBucket bucket(limitsOf(50, 100));
    EXPECT_EQ(taken(bucket, kStart), 100);
}

TEST(TokenBucket, FillsAtItsRateAndNoFurtherThanItsSize) {
    TokenBucket bucket(limitsOf(50, 100));
    taken(bucket, kStart);
    EXPECT_EQ(taken(bucket, kStart + milliseconds(19)), 0);
    EXPECT_EQ(taken(bucket, kStart + milliseconds(20)), 1);
    EXPECT_EQ(taken(bucket, kStart + seconds(1)), 49);
    EXPECT_EQ(taken(bucket, kStart + seconds(60)), 100);
}

TEST(TokenBucket, TellsWhenTheNextTokenComes) {
    TokenBucket bucket(limitsOf(4, 2));
    EXPECT_LE(bucket.nextAt(), kStart);
    taken(bucket, kStart);
    EXPECT_EQ(bucket.nextAt(), kStart + milliseconds(250));
    EXPECT_FALSE(bucket.take(bucket.nextAt() - std::chrono::nanoseconds(1)));
    EXPECT_TRUE(bucket.take(bucket.nextAt()));
}

TEST(TokenBucket, OfOneTokenIsARegularBeat) {
    TokenBucket bucket(limitsOf(0.01, 1));
    EXPECT_EQ(taken(bucket, kStart), 1);
    EXPECT_EQ(taken(bucket, kStart + milliseconds(99'999)), 0);
    EXPECT_EQ(taken(bucket, kStart + seconds(100)), 1);
}

TEST(TokenBucket, MadeQuickerItDoesNotWaitOutTheOldRate) {
    TokenBucket bucket(limitsOf(0.01, 100));
    taken(bucket, kStart);
    bucket.setLimits(limitsOf(50, 100), kStart);
    EXPECT_EQ(taken(bucket, kStart), 0);
    EXPECT_EQ(taken(bucket, kStart + seconds(1)), 50);
}

TEST(TokenBucket, MadeSmallerItGivesNoMoreThanItsNewSize) {
    TokenBucket bucket(limitsOf(50, 100));
    bucket.setLimits(limitsOf(50, 3), kStart);
    EXPECT_EQ(taken(bucket, kStart), 3);
}

}  // namespace
}  // namespace kx::agent
