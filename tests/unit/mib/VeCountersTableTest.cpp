// The rows of the counter tables, without a link. What their columns show where there is a vocabulary is tested beside
// the performance monitor.
#include "tables/VeCountersTable.h"

#include <gmock/gmock.h>

#include <type_traits>

#include "LogFormats.h"
#include "tables/VeNetworkCountersTableData.h"
#include "tables/VeQuotaCountersTableData.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace kx::test;
using testing::ElementsAre;
using testing::IsEmpty;

CounterMap counterOf(std::int64_t value) {
    KXLPerfStat stat;
    stat.value1.integer = value;
    return {{"c", stat}};
}

std::uint32_t numberIn(const ColumnValue& value) {
    EXPECT_EQ(value.getType(), ASN_UNSIGNED);
    EXPECT_EQ(value.getHigh(), 0);
    return static_cast<std::uint32_t>(value.getLow());
}

/// Of each row the container's number: "101"; of a network row with its instance's: "101/7".
template <typename Row>
std::vector<std::string> rowsOf(const ClassStats& stats) {
    constexpr bool hasInstance = std::is_same_v<Row, VeNetworkCountersTableData>;
    constexpr unsigned veidTag = hasInstance ? 6 : 9;
    std::vector<std::string> rows;
    for (Row row : CountersSnapshot<Row>(ClassStats(stats))) {
        const std::string instance = hasInstance ? "/" + std::to_string(numberIn(row[1])) : "";
        rows.push_back(std::to_string(numberIn(row[veidTag])) + instance);
    }
    return rows;
}

class CounterRows : public testing::Test {
protected:
    CounterRows() { SNMPNodeLocal::destroy(); }

    static std::vector<std::string> quota(const ClassStats& stats) { return rowsOf<VeQuotaCountersTableData>(stats); }
    static std::vector<std::string> network(const ClassStats& stats) {
        return rowsOf<VeNetworkCountersTableData>(stats);
    }
    /// The number that the instance of that name has.
    static std::uint32_t instanceNumber(const std::string& name) {
        VeNetworkCountersTableData row(1, name, InstanceCounters({}));
        return numberIn(row[1]);
    }
};

// ---- which rows there are -------------------------------------------------------------------------------------------

TEST_F(CounterRows, StandInTheOrderOfTheContainersAndOfTheNamesOfTheirInstances) {
    const InstanceMap instances = {{"2", {}}, {"10", {}}, {"1", {}}};
    EXPECT_THAT(network({{300, instances}, {7, {{"3", {}}}}, {101, {{"9", {}}, {"08", {}}}}}),
                ElementsAre("7/3", "101/8", "101/9", "300/1", "300/10", "300/2"));
}

TEST_F(CounterRows, OfTheQuotaTableAreOneForEachInstanceAllWithTheContainersIndex) {
    EXPECT_THAT(quota({{102, {{"", {}}}}, {101, {{"a", {}}, {"b", {}}, {"", {}}}}}),
                ElementsAre("101", "101", "101", "102"));
}

TEST_F(CounterRows, OfNothingThereAreNone) {
    EXPECT_THAT(quota({}), IsEmpty());
    EXPECT_THAT(network({}), IsEmpty());
    EXPECT_THAT(quota({{101, {}}}), IsEmpty()) << "a container without instances";
    EXPECT_THAT(network({{101, {}}, {102, {{"1", {}}}}}), ElementsAre("102/1"));
}

TEST_F(CounterRows, WithoutALinkThereAreNone) {
    const CountersSnapshot<VeQuotaCountersTableData> quotaRows;
    const CountersSnapshot<VeNetworkCountersTableData> networkRows;
    EXPECT_TRUE(quotaRows.begin() == quotaRows.end());
    EXPECT_TRUE(networkRows.begin() == networkRows.end());
}

TEST_F(CounterRows, OutliveTheSnapshotTheyCameFrom) {
    std::unique_ptr<VeNetworkCountersTableData> row;
    {
        const CountersSnapshot<VeNetworkCountersTableData> snapshot({{101, {{"7", counterOf(5)}}}});
        row = std::make_unique<VeNetworkCountersTableData>(*snapshot.begin());
    }
    EXPECT_EQ(numberIn((*row)[6]), 101U);
    EXPECT_EQ(numberIn((*row)[1]), 7U);
}

// ---- numbers of instances -------------------------------------------------------------------------------------------

TEST_F(CounterRows, HaveTheNumberThatTheNameOfTheInstanceBeginsWith) {
    EXPECT_EQ(instanceNumber("7"), 7U);
    EXPECT_EQ(instanceNumber("12abc"), 12U);
    EXPECT_EQ(instanceNumber("007"), 7U);
    EXPECT_EQ(instanceNumber(" 5"), 5U);
    EXPECT_EQ(instanceNumber("+3"), 3U);
    EXPECT_EQ(instanceNumber("1.9"), 1U);
    EXPECT_EQ(instanceNumber("0x1f"), 0U);
}

TEST_F(CounterRows, HaveTheNumberZeroWhereTheNameDoesNotBeginWithOne) {
    EXPECT_EQ(instanceNumber("eth0"), 0U);
    EXPECT_EQ(instanceNumber(""), 0U);
    EXPECT_EQ(instanceNumber("-"), 0U);
    EXPECT_EQ(instanceNumber("x7"), 0U);
    EXPECT_EQ(instanceNumber(std::string("\0"
                                         "7",
                                         2)),
              0U);
}

TEST_F(CounterRows, HaveTheLow32BitsOfANumberThatIsLarger) {
    EXPECT_EQ(instanceNumber("-1"), 4294967295U);
    EXPECT_EQ(instanceNumber("2147483648"), 2147483648U);
    EXPECT_EQ(instanceNumber("4294967295"), 4294967295U);
    EXPECT_EQ(instanceNumber("4294967298"), 2U);
    EXPECT_EQ(instanceNumber("9223372036854775807"), 4294967295U);
    EXPECT_EQ(instanceNumber("99999999999999999999"), 4294967295U) << "the largest there is";
    EXPECT_EQ(instanceNumber("-99999999999999999999"), 0U);
}

TEST_F(CounterRows, KeepTheContainersNumberWhateverItIs) {
    VeQuotaCountersTableData quotaRow(2147483647, "", InstanceCounters({}));
    VeNetworkCountersTableData networkRow(2147483647, "", InstanceCounters({}));
    EXPECT_EQ(numberIn(quotaRow[9]), 2147483647U);
    EXPECT_EQ(numberIn(networkRow[6]), 2147483647U);
}

// ---- columns without a vocabulary -----------------------------------------------------------------------------------

/// @param format of the log line
/// @return the tags that are answered by nothing and a log line
template <typename Row>
std::vector<unsigned> loggedNulls(Row row, unsigned last, const std::string& format) {
    std::vector<unsigned> tags;
    for (unsigned tag = 0; tag <= last; ++tag) {
        const LogCapture log;
        const LogFormats formats;
        const bool isNull = row[tag].isNull();
        const LogCapture::Line expected(3,
                                        "problem encountered in operator[]: unknown tag " + std::to_string(tag) + "\n");
        if (isNull && log.lines() == std::vector{expected}) {
            tags.push_back(tag);
            EXPECT_THAT(formats.formats(), ElementsAre(format)) << tag;
        } else {
            EXPECT_THAT(log.lines(), IsEmpty()) << tag;
        }
    }
    return tags;
}

TEST_F(CounterRows, AnswerOnlyTheirIndexWithoutALink) {
    VeQuotaCountersTableData quotaRow(101, "", InstanceCounters(counterOf(5)));
    VeNetworkCountersTableData networkRow(101, "7", InstanceCounters(counterOf(5)));
    EXPECT_THAT(loggedNulls(quotaRow, 20, kUnknownTag), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8));
    EXPECT_THAT(loggedNulls(networkRow, 20, kUnknownLongTag), ElementsAre(0, 2, 3, 4, 5));
    EXPECT_EQ(numberIn(quotaRow[9]), 101U);
    EXPECT_EQ(numberIn(networkRow[1]), 7U);
    EXPECT_EQ(numberIn(networkRow[6]), 101U);
    for (const unsigned tag : {10U, 4294967295U}) {
        EXPECT_TRUE(quotaRow[tag].isNull());
        EXPECT_TRUE(networkRow[tag].isNull());
    }
    EXPECT_TRUE(networkRow[7].isNull());
}

// ---- the counters of an instance ------------------------------------------------------------------------------------

TEST(InstanceCounters, GiveACounterByItsName) {
    InstanceCounters counters(counterOf(5));
    EXPECT_EQ(counters.at("c").value1.integer, 5);
    EXPECT_EQ(counters.size(), 1U);
}

TEST(InstanceCounters, TakeInACounterThatIsMissingAsZero) {
    InstanceCounters counters(counterOf(5));
    const KXLPerfStat& added = counters.at("new");
    EXPECT_EQ(added.kind, 1);
    EXPECT_EQ(added.value1.integer, 0);
    EXPECT_EQ(added.value2.integer, 0);
    EXPECT_EQ(added.value3.integer, 0);
    EXPECT_EQ(added.fourth, 0);
    EXPECT_EQ(counters.size(), 2U);
    counters.at("new");
    EXPECT_EQ(counters.size(), 2U);
    EXPECT_EQ(counters.at("c").value1.integer, 5);
}

TEST(InstanceCounters, GrowInOneCopyOnly) {
    InstanceCounters original(counterOf(5));
    InstanceCounters copy(original);
    copy.at("new");
    EXPECT_EQ(copy.size(), 2U);
    EXPECT_EQ(original.size(), 1U);
    original.at("other");
    original.at("third");
    EXPECT_EQ(original.size(), 3U);
    EXPECT_EQ(copy.size(), 2U);
}

}  // namespace
