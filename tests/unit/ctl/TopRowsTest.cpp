#include "ctl/top/TopRows.h"

#include <gmock/gmock.h>

namespace kx::ctl {
namespace {

using testing::ElementsAre;

KXLEID eidOf(int number) {
    KXLGUIDBase::Bytes bytes{};
    bytes.back() = static_cast<std::uint8_t>(number);
    return KXLEID(bytes);
}

Environment container(int number, const std::string& name, std::int32_t state = 2) {
    Environment made;
    made.eid = eidOf(number);
    made.type = kContainerType;
    made.veid = number;
    made.name = name;
    made.state = state;
    return made;
}

KXLPerfStat rate(std::int64_t perSecond) {
    KXLPerfStat stat;
    stat.value1.integer = -1;
    stat.value2.integer = perSecond;
    stat.value3.integer = -1;
    return stat;
}

CounterClass network() {
    CounterClass known;
    known.types = {{"bytes_in", 2}, {"bytes_out", 2}, {"packets_in", 2}, {"packets_out", 2}};
    return known;
}

KXLMonitorData traffic(int number, const std::vector<std::int64_t>& bytesIn) {
    KXLMonitorData data;
    data.eid = eidOf(number);
    for (std::size_t at = 0; at < bytesIn.size(); ++at) {
        data.classes[kNetworkClass][std::to_string(at)]["bytes_in"] = rate(bytesIn[at]);
    }
    return data;
}

TEST(TopRows, AddUpTheRatesOfAllInterfaces) {
    const auto rows = topRows({container(1, "a")}, {traffic(1, {10, 5})}, network(), true);
    ASSERT_EQ(rows.size(), 1U);
    ASSERT_TRUE(rows[0].rates);
    EXPECT_EQ(rows[0].rates->bytesIn, 15);
    EXPECT_EQ(rows[0].rates->bytesOut, 0);
}

TEST(TopRows, HaveNoRatesBeforeTheSecondReportNorWhereThereAreNone) {
    EXPECT_FALSE(topRows({container(1, "a")}, {traffic(1, {10})}, network(), false)[0].rates);
    EXPECT_FALSE(topRows({container(1, "a")}, {}, network(), true)[0].rates);
    EXPECT_FALSE(topRows({container(1, "a")}, {traffic(1, {10})}, CounterClass(), true)[0].rates);
}

TEST(TopRows, AreContainersOnly) {
    Environment host = container(1, "host");
    host.type = "host";
    EXPECT_TRUE(topRows({host}, {traffic(1, {10})}, network(), true).empty());
}

TEST(TopRows, TellTheUseOfSpaceInPercent) {
    TopRow row;
    EXPECT_FALSE(row.percent());
    row.space = QuotaUse{5, 0, 0, 0};
    EXPECT_FALSE(row.percent());
    row.space = QuotaUse{5, 0, 10, 0};
    EXPECT_EQ(row.percent(), 50);
    row.space = QuotaUse{std::nullopt, 0, 10, 0};
    EXPECT_FALSE(row.percent());
}

struct Sorting : testing::Test {
    Sorting()
        : rows(topRows({container(1, "b", 1), container(2, "c"), container(3, "a", 3)},
                       {traffic(1, {5}), traffic(2, {50})}, network(), true)) {}

    std::vector<int> sortedBy(TopOrder order, bool isReversed = false) {
        sortTopRows(rows, order, isReversed);
        std::vector<int> numbers;
        for (const TopRow& row : rows) {
            numbers.push_back(*row.environment.veid);
        }
        return numbers;
    }

    std::vector<TopRow> rows;
};

TEST_F(Sorting, PutsTheBusiestFirst) {
    EXPECT_THAT(sortedBy(TopOrder::Id, true), ElementsAre(3, 2, 1));
    EXPECT_THAT(sortedBy(TopOrder::In), ElementsAre(2, 1, 3));
}

TEST_F(Sorting, LeavesTheUnknownAtTheEndWhenReversed) {
    EXPECT_THAT(sortedBy(TopOrder::Id, true), ElementsAre(3, 2, 1));
    EXPECT_THAT(sortedBy(TopOrder::In, true), ElementsAre(1, 2, 3));
}

TEST_F(Sorting, GoesByNumberNameAndState) {
    EXPECT_THAT(sortedBy(TopOrder::Id), ElementsAre(1, 2, 3));
    EXPECT_THAT(sortedBy(TopOrder::Id, true), ElementsAre(3, 2, 1));
    EXPECT_THAT(sortedBy(TopOrder::Name), ElementsAre(3, 1, 2));
    EXPECT_THAT(sortedBy(TopOrder::Name, true), ElementsAre(2, 1, 3));
    EXPECT_THAT(sortedBy(TopOrder::State), ElementsAre(1, 2, 3));
}

TEST_F(Sorting, KeepsTheOrderOfEqualOnes) {
    EXPECT_THAT(sortedBy(TopOrder::Id), ElementsAre(1, 2, 3));
    EXPECT_THAT(sortedBy(TopOrder::Quota), ElementsAre(1, 2, 3));
}

TEST(TopOrders, HaveWords) {
    ASSERT_EQ(topOrderWords().size(), static_cast<std::size_t>(kTopOrders));
    EXPECT_EQ(topOrderWords()[static_cast<std::size_t>(TopOrder::PacketsIn)], "packets-in");
    EXPECT_EQ(topOrderWord(TopOrder::Quota), "quota");
}

}  // namespace
}  // namespace kx::ctl
