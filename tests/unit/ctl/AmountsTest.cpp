#include "ctl/view/Amounts.h"

#include <gtest/gtest.h>

#include <limits>

#include "ctl/view/Paint.h"

namespace kx::ctl {
namespace {

constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();

TEST(Amounts, OfBytesHaveThreeDigitsAndAUnitOf1024) {
    EXPECT_EQ(bytesText(0), "0");
    EXPECT_EQ(bytesText(1023), "1023");
    EXPECT_EQ(bytesText(1024), "1.0K");
    EXPECT_EQ(bytesText(10 * 1024), "10K");
    EXPECT_EQ(bytesText(1023 * 1024), "1.0M");
    EXPECT_EQ(bytesText(std::int64_t{5} << 30), "5.0G");
    EXPECT_EQ(bytesText(kMost), "8.0E");
    EXPECT_EQ(bytesText(-5), "-5");
    EXPECT_EQ(bytesText(kLeast), "-8.0E");
}

TEST(Amounts, OfOtherThingsHaveUnitsOf1000) {
    EXPECT_EQ(countText(999), "999");
    EXPECT_EQ(countText(1000), "1.0K");
    EXPECT_EQ(countText(1'500'000), "1.5M");
}

TEST(Amounts, OfTimeHaveTheirLargestUnit) {
    EXPECT_EQ(durationText(0), "0s");
    EXPECT_EQ(durationText(59), "59s");
    EXPECT_EQ(durationText(60), "1m");
    EXPECT_EQ(durationText(7199), "1h");
    EXPECT_EQ(durationText(604800), "7d");
}

TEST(Amounts, AreAHundredPercentOnlyWhenAllIsUsed) {
    EXPECT_EQ(percentOf(0, 10), 0);
    EXPECT_EQ(percentOf(999'999, 1'000'000), 99);
    EXPECT_EQ(percentOf(kMost - 1, kMost), 99);
    EXPECT_EQ(percentOf(10, 10), 100);
    EXPECT_EQ(percentOf(25, 10), 250);
    EXPECT_EQ(percentOf(-1, 10), 0);
}

TEST(Amounts, FillABarAsFarAsTheySay) {
    EXPECT_EQ(bar(0, 12), "[..........]");
    EXPECT_EQ(bar(1, 12), "[#.........]");
    EXPECT_EQ(bar(45, 12), "[####......]");
    EXPECT_EQ(bar(99, 12), "[#########.]");
    EXPECT_EQ(bar(100, 12), "[##########]");
    EXPECT_EQ(bar(250, 12), "[##########]");
    EXPECT_EQ(bar(-1, 3), "[.]");
}

TEST(Amounts, ArePaintedWhenTheyAreNearlyUsedUp) {
    EXPECT_EQ(percentPaint(74), Paint::None);
    EXPECT_EQ(percentPaint(75), Paint::Yellow);
    EXPECT_EQ(percentPaint(90), Paint::Red);
}

}  // namespace
}  // namespace kx::ctl
