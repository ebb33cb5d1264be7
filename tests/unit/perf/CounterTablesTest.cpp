// Both counter tables as they are published: from the agent's socket through the library's helpers to the answers.
#include "mib/OidLayout.h"
#include "tests/unit/perf/PublishedTables.h"

namespace kx::test {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

constexpr oid kQuotaTable = 7;
constexpr oid kNetworkTable = 8;

Oid nameOf(oid table, oid column, const Oid& index) {
    Oid name(mibRoot.begin(), mibRoot.end());
    name.insert(name.end(), {table, 1, column});
    name.insert(name.end(), index.begin(), index.end());
    return name;
}

Oid tableName(oid table) {
    Oid name(mibRoot.begin(), mibRoot.end());
    name.push_back(table);
    return name;
}

Answer counter(oid table, oid column, const Oid& index, std::int64_t value) {
    const auto bits = static_cast<std::uint64_t>(value);
    return {nameOf(table, column, index), ASN_COUNTER64,
            nativeLong(static_cast<std::int32_t>(bits >> 32)) + nativeLong(static_cast<std::int32_t>(bits))};
}

/// The link's monitor keeps its classes from test to test.
using CounterTables = PublishedTables;

wire::CounterGroup quotaOf(const std::vector<CounterRow>& rows) {
    return groupOf(kQuota, {"q1", "q2", "q3", "q4", "q5", "q6", "q7", "q8"}, rows);
}

wire::CounterGroup networkOf(const std::vector<CounterRow>& rows) {
    return groupOf(kNet, {"bytes_in", "packets_in", "bytes_out", "packets_out"}, rows);
}

TEST_F(CounterTables, ShowEveryCounterOfEveryContainer) {
    publish({quotaOf({rowOf(kStore, "", {11, 12, 13, 14, 15, 16, 17, 18}), rowOf(kWeb, "", {1, 2, 3, 4, 5, 6, 7, 8})}),
             networkOf({rowOf(kWeb, "7", {1, 2, 3, 4}), rowOf(kWeb, "eth1", {5, 6, 7, 8}),
                        rowOf(kStore, "12abc", {-1, 1LL << 40, 3, 4})})});
    std::vector<Answer> quota;
    for (oid column = 1; column <= 8; ++column) {
        quota.push_back(counter(kQuotaTable, column, {101}, static_cast<std::int64_t>(column)));
        quota.push_back(counter(kQuotaTable, column, {102}, static_cast<std::int64_t>(column + 10)));
    }
    EXPECT_THAT(snmp().walk(tableName(kQuotaTable)), ElementsAreArray(quota));
    const auto instance = [](oid veid, oid number) {
        return Answer{nameOf(kNetworkTable, 1, {veid, number}), ASN_UNSIGNED, nativeLong(static_cast<long>(number))};
    };
    std::vector<Answer> network = {instance(101, 0), instance(101, 7), instance(102, 12)};
    const std::int64_t values[][3] = {{5, 1, -1}, {6, 2, 1LL << 40}, {7, 3, 3}, {8, 4, 4}};
    for (oid column = 2; column <= 5; ++column) {
        const auto& row = values[column - 2];
        network.push_back(counter(kNetworkTable, column, {101, 0}, 3 * row[0]));
        network.push_back(counter(kNetworkTable, column, {101, 7}, 3 * row[1]));
        network.push_back(counter(kNetworkTable, column, {102, 12}, 3 * row[2]));
    }
    EXPECT_THAT(snmp().walk(tableName(kNetworkTable)), ElementsAreArray(network));
}

TEST_F(CounterTables, AnswerTheFirstOfSeveralInstancesThatHaveOneIndex) {
    publish({quotaOf({rowOf(kWeb, "b", {21, 2, 3, 4, 5, 6, 7, 8}), rowOf(kWeb, "a", {11, 2, 3, 4, 5, 6, 7, 8})}),
             networkOf({rowOf(kWeb, "eth1", {2, 2, 2, 2}), rowOf(kWeb, "eth0", {1, 1, 1, 1})})});
    EXPECT_THAT(SNMPNodeLocal::instance()->getStats(kQuota).at(101), SizeIs(2));
    EXPECT_THAT(snmp().get({nameOf(kQuotaTable, 1, {101})}), ElementsAre(counter(kQuotaTable, 1, {101}, 11)));
    EXPECT_THAT(snmp().get({nameOf(kNetworkTable, 2, {101, 0})}), ElementsAre(counter(kNetworkTable, 2, {101, 0}, 3)));
    EXPECT_THAT(snmp().walk(tableName(kQuotaTable)), SizeIs(8)) << "a walk passes both";
    EXPECT_THAT(snmp().walk(tableName(kNetworkTable)), SizeIs(5));
}

TEST_F(CounterTables, AnswerTheFirstOfThemToAGetOfSeveralVariablesToo) {
    publish({quotaOf({rowOf(kWeb, "b", {21, 22, 3, 4, 5, 6, 7, 8}), rowOf(kWeb, "a", {11, 12, 3, 4, 5, 6, 7, 8})})});
    EXPECT_THAT(snmp().get({nameOf(kQuotaTable, 1, {101}), nameOf(kQuotaTable, 2, {101})}),
                ElementsAre(counter(kQuotaTable, 1, {101}, 11), counter(kQuotaTable, 2, {101}, 12)));
}

TEST_F(CounterTables, AreLeftForTheNextTableWhenTheyAreEmpty) {
    const auto network = networkOf({rowOf(kWeb, "7", {1, 2, 3, 4})});
    publish({network});
    agent().answerQueriesWith({network});  // of the class that is empty
    EXPECT_THAT(snmp().getNext({tableName(kQuotaTable)}),
                ElementsAre(Answer{nameOf(kNetworkTable, 1, {101, 7}), ASN_UNSIGNED, nativeLong(7)}));
}

TEST_F(CounterTables, HaveNoInstanceOfAContainerThatReportsNothing) {
    publish({quotaOf({rowOf(kWeb, "", {1, 2, 3, 4, 5, 6, 7, 8})})});
    EXPECT_EQ(snmp().get({nameOf(kQuotaTable, 1, {102})})[0].type, SNMP_NOSUCHINSTANCE);
    EXPECT_EQ(snmp().get({nameOf(kQuotaTable, 9, {101})})[0].type, SNMP_NOSUCHOBJECT) << "the index is no column";
    EXPECT_THAT(snmp().walk(tableName(kQuotaTable)), SizeIs(8));
}

TEST_F(CounterTables, PassOverColumnsThatTheVocabularyDoesNotName) {
    agent().setVocabulary(vocabularyOf({{kQuota, {{"q2", 1}}}, {kNet, {{"packets_in", 2}}}}));
    publish({quotaOf({rowOf(kWeb, "", {1, 2, 3, 4, 5, 6, 7, 8})}), networkOf({rowOf(kWeb, "1", {1, 2, 3, 4})})});
    const LogCapture log;
    EXPECT_THAT(snmp().walk(tableName(kQuotaTable)), ElementsAre(counter(kQuotaTable, 1, {101}, 2)));
    EXPECT_THAT(snmp().walk(tableName(kNetworkTable)),
                ElementsAre(Answer{nameOf(kNetworkTable, 1, {101, 1}), ASN_UNSIGNED, nativeLong(1)},
                            counter(kNetworkTable, 2, {101, 1}, 6)));
    EXPECT_THAT(log.lines(),
                testing::Contains(LogCapture::Line(3, "problem encountered in operator[]: unknown tag 2\n")));
}

TEST_F(CounterTables, AreEmptyWhenNothingIsReported) {
    publish({});
    EXPECT_THAT(snmp().walk(tableName(kQuotaTable)), IsEmpty());
    EXPECT_THAT(snmp().walk(tableName(kNetworkTable)), IsEmpty());
}

}  // namespace
}  // namespace kx::test
