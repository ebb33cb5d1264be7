#include "ctl/view/Counters.h"

#include <gmock/gmock.h>

#include <cmath>

namespace kx::ctl {
namespace {

using testing::ElementsAre;
using testing::Pair;

KXLPerfStat numbers(std::int64_t first, std::int64_t second, std::int64_t third) {
    KXLPerfStat stat;
    stat.value1.integer = first;
    stat.value2.integer = second;
    stat.value3.integer = third;
    return stat;
}

TEST(Counters, ComeInTheVocabularysOrderAndTheOthersBehind) {
    CounterClass known;
    known.order = {"z", "missing", "b"};
    known.types = {{"z", 2}, {"b", 1}};
    EXPECT_THAT(valuesInOrder(known, {{"a", numbers(1, 2, 3)}, {"b", numbers(4, 5, 6)}, {"z", numbers(7, 8, 9)}}),
                ElementsAre(Pair("z", 9), Pair("b", 4), Pair("a", 1)));
}

TEST(Counters, ThatTheAgentDoesNotKnowSaySo) {
    KXLPerfStat unknown = numbers(1, 2, 3);
    unknown.isKnown = false;
    const NamedValues values = valuesInOrder({}, {{"a", unknown}, {"b", numbers(4, 5, 6)}});
    EXPECT_EQ(valuesJson(values).line(), R"({"a":"unknown","b":4})");
    const auto quota = quotaOf({{"diskspace_used", unknown}, {"diskspace_hardlimit", numbers(9, 9, 9)}}, "diskspace");
    ASSERT_TRUE(quota);
    EXPECT_EQ(quota->used, std::nullopt);
    EXPECT_EQ(quota->limit(), 9);
    EXPECT_EQ(quota->percent(), std::nullopt);
}

TEST(Counters, AreRoundedWhereTheAgentTellsFractions) {
    KXLPerfStat stat;
    stat.kind = 0;
    const auto rounded = [&](double real) {
        stat.value1.real = real;
        return integerOf(stat, stat.value1);
    };
    EXPECT_EQ(rounded(2.5), 3);
    EXPECT_EQ(rounded(-0.4), 0);
    EXPECT_EQ(rounded(std::nan("")), 0);
    EXPECT_GT(rounded(1e300), std::int64_t{1} << 62);
    EXPECT_LT(rounded(-1e300), -(std::int64_t{1} << 62));
}

TEST(Quota, IsMeasuredAgainstTheHardLimitThenTheSoft) {
    const auto limit = [](std::int64_t soft, std::int64_t hard) { return QuotaUse{1, soft, hard, 0}.limit(); };
    EXPECT_EQ(limit(5, 10), 10);
    EXPECT_EQ(limit(5, 0), 5);
    EXPECT_EQ(limit(0, 0), 0);
    EXPECT_EQ(limit(-5, -10), 0);
}

TEST(Quota, IsThereWhenItsUseIs) {
    EXPECT_FALSE(quotaOf({{"diskspace_hardlimit", numbers(9, 9, 9)}}, "diskspace"));
    const auto quota = quotaOf({{"inodes_used", numbers(3, 0, 0)}, {"inodes_grace", numbers(4, 0, 0)}}, "inodes");
    ASSERT_TRUE(quota);
    EXPECT_EQ(quota->used, 3);
    EXPECT_EQ(quota->grace, 4);
    EXPECT_EQ(quota->hard, 0);
}

}  // namespace
}  // namespace kx::ctl
