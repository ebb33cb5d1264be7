// The columns of the two counter tables, as the agent's vocabulary names them.
#include <limits>

#include "tables/VeNetworkCountersTableData.h"
#include "tables/VeQuotaCountersTableData.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/mib/LogFormats.h"
#include "tests/unit/perf/PerfFixture.h"

namespace kx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned kLastQuotaColumn = 8;
constexpr unsigned kLastNetworkColumn = 5;

LogCapture::Line unknownTag(unsigned tag) {
    return {3, "problem encountered in operator[]: unknown tag " + std::to_string(tag) + "\n"};
}

/// Three values that tell which of them was taken.
KXLPerfStat valuesOf(std::int64_t first, std::int64_t second, std::int64_t third) {
    KXLPerfStat stat;
    stat.value1.integer = first;
    stat.value2.integer = second;
    stat.value3.integer = third;
    return stat;
}

std::int64_t numberIn(const ColumnValue& value) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(static_cast<std::uint32_t>(value.getHigh())) << 32 |
                                     static_cast<std::uint32_t>(value.getLow()));
}

std::vector<CounterName> countersNamed(const std::string& prefix, int count) {
    std::vector<CounterName> counters;
    for (int i = 1; i <= count; ++i) {
        counters.push_back({prefix + std::to_string(i), 1});
    }
    return counters;
}

class CounterColumns : public PerfFixture {
protected:
    /// The vocabulary has so many counters, q1, q2 ... and n1, n2 ...
    void setCounters(int quota, int network) {
        setClasses({{kQuota, countersNamed("q", quota)}, {kNet, countersNamed("n", network)}});
    }
    void setClasses(const CounterClasses& classes) {
        agent().setVocabulary(vocabularyOf(classes));
        ASSERT_TRUE(settle());
    }

    /// A row whose counter number i has 100 i + 1, + 2 and + 3 as its values.
    static CounterMap countersOf(const std::string& prefix, int count) {
        CounterMap counters;
        for (int i = 1; i <= count; ++i) {
            counters[prefix + std::to_string(i)] = valuesOf(100 * i + 1, 100 * i + 2, 100 * i + 3);
        }
        return counters;
    }
    static VeQuotaCountersTableData quotaRow(int counters = 10) {
        return {101, "", InstanceCounters(countersOf("q", counters))};
    }
    static VeNetworkCountersTableData networkRow(int counters = 10) {
        return {101, "7", InstanceCounters(countersOf("n", counters))};
    }

    /// The values of some columns; each must be a counter.
    template <typename Row>
    static std::vector<std::int64_t> counterColumns(Row row, unsigned first, unsigned last) {
        std::vector<std::int64_t> values;
        for (unsigned tag = first; tag <= last; ++tag) {
            const ColumnValue value = row[tag];
            EXPECT_EQ(value.getType(), ASN_COUNTER64) << tag;
            values.push_back(numberIn(value));
        }
        return values;
    }
    static const std::string& formatOf(const VeQuotaCountersTableData&) { return kUnknownTag; }
    static const std::string& formatOf(const VeNetworkCountersTableData&) { return kUnknownLongTag; }
    template <typename Row>
    static void expectNullAndLogged(Row row, const std::vector<unsigned>& tags) {
        for (const unsigned tag : tags) {
            const LogCapture log;
            const LogFormats formats;
            EXPECT_TRUE(row[tag].isNull()) << tag;
            EXPECT_THAT(log.lines(), ElementsAre(unknownTag(tag)));
            EXPECT_THAT(formats.formats(), ElementsAre(formatOf(row)));
        }
    }
    template <typename Row>
    static void expectSilentNull(Row row, const std::vector<unsigned>& tags) {
        const LogCapture log;
        for (const unsigned tag : tags) {
            EXPECT_TRUE(row[tag].isNull()) << tag;
        }
        EXPECT_THAT(log.lines(), IsEmpty());
    }
    template <typename Row>
    static void expectNumber(Row row, unsigned tag, std::int32_t number) {
        const ColumnValue value = row[tag];
        EXPECT_EQ(value.getType(), ASN_UNSIGNED);
        EXPECT_EQ(value.getLow(), number);
        EXPECT_EQ(value.getHigh(), 0);
    }
};

TEST_F(CounterColumns, OfTheQuotaTableAreTheFirstValuesOfTheEightCounters) {
    setCounters(8, 4);
    EXPECT_THAT(counterColumns(quotaRow(), 1, 8), ElementsAre(101, 201, 301, 401, 501, 601, 701, 801));
}

TEST_F(CounterColumns, OfTheNetworkTableAreTheThirdValuesOfTheFourCountersAfterTheInstance) {
    setCounters(8, 4);
    EXPECT_THAT(counterColumns(networkRow(), 2, 5), ElementsAre(103, 203, 303, 403));
    expectNumber(networkRow(), 1, 7);
}

TEST_F(CounterColumns, StandInTheOrderOfTheVocabularyNotOfTheNames) {
    setClasses({{kQuota, {{"q3", 1}, {"q1", 1}, {"q2", 1}}}, {kNet, {{"n2", 2}, {"n1", 2}}}});
    EXPECT_THAT(counterColumns(quotaRow(), 1, 3), ElementsAre(301, 101, 201));
    EXPECT_THAT(counterColumns(networkRow(), 2, 3), ElementsAre(203, 103));
}

TEST_F(CounterColumns, ShowANameThatTheVocabularyRepeatsInEachOfItsPlaces) {
    setClasses({{kQuota, {{"q1", 1}, {"q1", 1}, {"q2", 1}}}, {kNet, {{"n1", 2}, {"n1", 2}}}});
    EXPECT_THAT(counterColumns(quotaRow(), 1, 3), ElementsAre(101, 101, 201));
    EXPECT_THAT(counterColumns(networkRow(), 2, 3), ElementsAre(103, 103));
}

TEST_F(CounterColumns, BehindTheLastHoldTheContainersNumberForTheIndex) {
    expectNumber(quotaRow(), kLastQuotaColumn + 1, 101);
    expectNumber(networkRow(), kLastNetworkColumn + 1, 101);
    expectNumber(VeQuotaCountersTableData(-1, "", InstanceCounters({})), kLastQuotaColumn + 1, -1);
}

TEST_F(CounterColumns, BeyondTheIndexAreSilentlyNull) {
    expectSilentNull(quotaRow(), {10, 11, 100, std::numeric_limits<unsigned>::max()});
    expectSilentNull(networkRow(), {7, 8, 100, std::numeric_limits<unsigned>::max()});
}

TEST_F(CounterColumns, NumberZeroAreLoggedAndNull) {
    expectNullAndLogged(quotaRow(), {0});
    expectNullAndLogged(networkRow(), {0});
}

// ---- vocabularies that do not fit -----------------------------------------------------------------------------------

TEST_F(CounterColumns, WithoutANameInTheVocabularyAreLoggedAndNull) {
    setCounters(3, 2);
    EXPECT_THAT(counterColumns(quotaRow(), 1, 3), ElementsAre(101, 201, 301));
    expectNullAndLogged(quotaRow(), {4, 5, 6, 7, 8});
    EXPECT_THAT(counterColumns(networkRow(), 2, 3), ElementsAre(103, 203));
    expectNullAndLogged(networkRow(), {4, 5});
}

TEST_F(CounterColumns, OfAVocabularyWithMoreNamesAreItsFirst) {
    setCounters(12, 9);
    EXPECT_THAT(counterColumns(quotaRow(12), 1, 8), ElementsAre(101, 201, 301, 401, 501, 601, 701, 801));
    EXPECT_THAT(counterColumns(networkRow(12), 2, 5), ElementsAre(103, 203, 303, 403));
    expectNumber(quotaRow(12), 9, 101);
    expectNumber(networkRow(12), 6, 101);
    expectSilentNull(quotaRow(12), {10, 11, 12});
    expectSilentNull(networkRow(12), {7, 8, 9});
}

// An empty category is read without a word.
TEST_F(CounterColumns, OfAClassWithoutNamesAreLoggedAndNullButTheIndexAnswers) {
    setCounters(0, 0);
    expectNullAndLogged(quotaRow(), {0, 1, 2, 3, 4, 5, 6, 7, 8});
    expectNumber(quotaRow(), 9, 101);
    expectSilentNull(quotaRow(), {10});
    expectNullAndLogged(networkRow(), {0, 2, 3, 4, 5});
    expectNumber(networkRow(), 1, 7);
    expectNumber(networkRow(), 6, 101);
    expectSilentNull(networkRow(), {7});
}

TEST_F(CounterColumns, OfAClassThatTheVocabularyLacksAreNullAndTheIndexAnswersInSilence) {
    setClasses({{"another", {{"q1", 1}}}});
    for (const unsigned tag : {1U, 8U}) {
        const LogCapture log;
        EXPECT_TRUE(quotaRow()[tag].isNull());
        EXPECT_THAT(log.lines(),
                    ElementsAre(LogCapture::Line(3, "init: _vocabulary->readCategory failed\n"), unknownTag(tag)));
    }
    const LogCapture log;
    expectNumber(quotaRow(), 9, 101);
    expectNumber(networkRow(), 1, 7);
    expectNumber(networkRow(), 6, 101);
    EXPECT_THAT(log.lines(), IsEmpty()) << "the index needs no vocabulary";
}

TEST_F(CounterColumns, FollowTheVocabularyFromOneRequestToTheNext) {
    setCounters(8, 4);
    VeQuotaCountersTableData quota = quotaRow();
    VeNetworkCountersTableData network = networkRow();
    EXPECT_EQ(numberIn(quota[1]), 101);
    EXPECT_EQ(numberIn(network[2]), 103);
    setClasses({{kQuota, {{"q5", 1}}}, {kNet, {{"n5", 2}}}});
    EXPECT_EQ(numberIn(quota[1]), 501);
    EXPECT_EQ(numberIn(network[2]), 503);
}

// ---- values ---------------------------------------------------------------------------------------------------------

TEST_F(CounterColumns, OfACounterThatTheRowLacksAreZeroNowAndLater) {
    setCounters(8, 4);
    VeQuotaCountersTableData quota = quotaRow(2);
    VeNetworkCountersTableData network = networkRow(2);
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(counterColumns(quota, 1, 8), ElementsAre(101, 201, 0, 0, 0, 0, 0, 0));
        EXPECT_THAT(counterColumns(network, 2, 5), ElementsAre(103, 203, 0, 0));
        EXPECT_EQ(numberIn(quota[3]), 0);
        EXPECT_EQ(numberIn(network[4]), 0);
    }
}

TEST_F(CounterColumns, HaveSixtyFourBits) {
    setCounters(1, 1);
    using Limits = std::numeric_limits<std::int64_t>;
    for (const std::int64_t value : {std::int64_t{0}, std::int64_t{4294967295}, std::int64_t{4294967296}, Limits::max(),
                                     Limits::min(), std::int64_t{-1}}) {
        EXPECT_THAT(
            counterColumns(VeQuotaCountersTableData(101, "", InstanceCounters({{"q1", valuesOf(value, 5, 6)}})), 1, 1),
            ElementsAre(value));
        EXPECT_THAT(counterColumns(
                        VeNetworkCountersTableData(101, "1", InstanceCounters({{"n1", valuesOf(5, 6, value)}})), 2, 2),
                    ElementsAre(value));
    }
}

TEST_F(CounterColumns, OfACounterOfDoublesAreTheirBits) {
    setCounters(1, 1);
    KXLPerfStat stat = valuesOf(bitsOf(0.5), bitsOf(1.5), bitsOf(2.5));
    stat.kind = 0;
    EXPECT_THAT(counterColumns(VeQuotaCountersTableData(101, "", InstanceCounters({{"q1", stat}})), 1, 1),
                ElementsAre(bitsOf(0.5)));
    EXPECT_THAT(counterColumns(VeNetworkCountersTableData(101, "1", InstanceCounters({{"n1", stat}})), 2, 2),
                ElementsAre(bitsOf(2.5)));
}

}  // namespace
}  // namespace kx::test
