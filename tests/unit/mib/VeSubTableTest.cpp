#include "tables/VeSubTable.h"

#include <gmock/gmock.h>

#include <limits>

#include "link/SNMPNodeLocal.h"
#include "tables/VeAppTableData.h"
#include "tables/VeIpTableData.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MakeEnv.h"

namespace {

using namespace kx::test;
using kx::wire::Environment;
using testing::ElementsAre;
using testing::IsEmpty;
using EnvList = KXLEnvCache::EnvValuesList;
using Addresses = std::vector<std::pair<std::string, std::string>>;
using IpCursor = VeIpAddrTable::Cursor;

Environment container(int veid, const Addresses& addresses, const std::string& type = "lumetra") {
    static int number = 0;
    Environment env = wireEnv(++number, type);
    env.mutable_configuration()->set_veid(veid);
    auto& list = *env.mutable_configuration()->mutable_addresses();
    for (const auto& [address, mask] : addresses) {
        auto& added = *list.add_addresses();
        added.set_address(address);
        added.set_mask(mask);
    }
    return env;
}

Environment withoutNumber(const Addresses& addresses) {
    Environment env = container(1, addresses);
    env.mutable_configuration()->clear_veid();
    return env;
}

Environment withoutList(int veid) {
    Environment env = container(veid, {});
    env.mutable_configuration()->clear_addresses();
    return env;
}

Environment withTemplates(int veid, const std::vector<std::pair<std::string, std::string>>& templates) {
    Environment env = withoutList(veid);
    for (const auto& [name, version] : templates) {
        auto& added = *env.mutable_configuration()->mutable_templates()->add_templates();
        added.set_name(name);
        added.set_version(version);
    }
    return env;
}

EnvList listOf(const std::vector<Environment>& environments) {
    return makeCache(environments)->getEnvList();
}

/// "VE id/first column", in the order of the walk.
template <typename Table>
std::vector<std::string> rowsOf(const EnvList& list) {
    const typename Table::Snapshot snapshot(list);
    std::vector<std::string> rows;
    const auto end = snapshot.end();
    for (auto cursor = snapshot.begin(); !(cursor == end); ++cursor) {
        typename Table::Row row = *cursor;
        const ColumnValue first = row[1];
        const auto text = first.getType() == ASN_OCTET_STR ? first.getText()
                                                           : std::to_string(static_cast<std::uint32_t>(first.getLow()));
        rows.push_back(std::to_string(static_cast<std::uint32_t>(row[3].getLow())) + "/" + text);
    }
    return rows;
}

std::vector<std::string> addressRows(const std::vector<Environment>& environments) {
    return rowsOf<VeIpAddrTable>(listOf(environments));
}

constexpr std::uint32_t quad(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
    return a << 24 | b << 16 | c << 8 | d;
}

std::uint32_t addressColumn(const std::string& address, const std::string& mask, unsigned tag) {
    VeIpTableData row(101, KXLIPAddress(address, mask));
    const ColumnValue value = row[tag];
    EXPECT_EQ(value.getType(), ASN_IPADDRESS);
    return static_cast<std::uint32_t>(value.getLow());
}

std::uint32_t versionColumn(const std::string& version) {
    VeAppTableData row(101, KXATemplate("name", version));
    const ColumnValue value = row[2];
    EXPECT_EQ(value.getType(), ASN_UNSIGNED);
    return static_cast<std::uint32_t>(value.getLow());
}

// ---- which rows there are ---------------------------------------------------------------------------------------

TEST(VeSubTableRows, StandInTheOrderOfTheContainersAndOfTheirLists) {
    EXPECT_THAT(addressRows({container(300, {{"0.0.0.9", ""}, {"0.0.0.1", ""}}), container(100, {{"0.0.0.5", ""}})}),
                ElementsAre("300/9", "300/1", "100/5"));
}

TEST(VeSubTableRows, SkipContainersWithoutAListAndWithAnEmptyOne) {
    EXPECT_THAT(addressRows({withoutList(1), container(2, {}), container(3, {{"0.0.0.3", ""}}), container(4, {}),
                             withoutList(5), container(6, {{"0.0.0.6", ""}}), container(7, {})}),
                ElementsAre("3/3", "6/6"));
}

TEST(VeSubTableRows, OfAContainerWithoutAPositiveNumberThereAreNone) {
    const Addresses one = {{"0.0.0.1", ""}};
    EXPECT_THAT(addressRows({container(0, one), withoutNumber(one), container(-1, one), container(-7, one),
                             container(std::numeric_limits<std::int32_t>::min(), one), container(1, one)}),
                ElementsAre("1/1"));
}

TEST(VeSubTableRows, OfOtherEnvironmentsThereAreNone) {
    const Addresses one = {{"0.0.0.1", ""}};
    EXPECT_THAT(addressRows({container(1, one, "host"), container(2, one), container(3, one, "lumetra2")}),
                ElementsAre("2/1"));
}

TEST(VeSubTableRows, OfNothingThereAreNone) {
    EXPECT_THAT(addressRows({}), IsEmpty());
    EXPECT_THAT(addressRows({container(1, {})}), IsEmpty());
    EXPECT_THAT(rowsOf<VeIpAddrTable>(EnvList()), IsEmpty());
    SNMPNodeLocal::destroy();
    const VeIpAddrTable::Snapshot withoutAgent;
    EXPECT_TRUE(withoutAgent.begin() == withoutAgent.end());
}

TEST(VeSubTableRows, ThatAreEqualAreAllThere) {
    EXPECT_THAT(addressRows({container(1, {{"0.0.0.1", "a"}, {"0.0.0.1", "b"}}), container(1, {{"0.0.0.1", "a"}})}),
                ElementsAre("1/1", "1/1", "1/1"));
}

TEST(VeSubTableRows, OfTemplatesAreTheirNames) {
    EXPECT_THAT(
        rowsOf<VeAppTable>(listOf({withTemplates(5, {{"z", "1"}, {"", "2"}}), withTemplates(0, {{"hidden", ""}}),
                                   container(3, {{"0.0.0.3", ""}}), withTemplates(4, {{"a", ""}})})),
        ElementsAre("5/z", "5/", "4/a"));
}

TEST(VeSubTableRows, OfTemplatesWhoseNameFitsIntoNoOidThereAreNone) {
    const std::string longest(114, 'n');
    EXPECT_THAT(rowsOf<VeAppTable>(
                    listOf({withTemplates(5, {{longest + "n", "1"}, {longest, "2"}, {std::string(500, 'n'), "3"}})})),
                ElementsAre("5/" + longest));
}

TEST(VeSubTableRows, OutliveTheCacheTheyCameFrom) {
    auto cache = makeCache({container(1, {{"0.0.0.1", ""}, {"0.0.0.2", ""}})});
    const VeIpAddrTable::Snapshot snapshot(cache->getEnvList());
    IpCursor cursor = snapshot.begin();
    cache->store().publish(nullptr);
    cache.reset();
    ++cursor;
    VeIpTableData row = *cursor;
    EXPECT_EQ(row[1].getLow(), 2);
}

TEST(VeSubTableRows, AreCopiesThatOutliveTheirCursor) {
    std::unique_ptr<VeAppTableData> row;
    {
        const VeAppTable::Snapshot snapshot(listOf({withTemplates(9, {{"nginx", "1.24"}})}));
        row = std::make_unique<VeAppTableData>(*snapshot.begin());
    }
    EXPECT_EQ((*row)[1].getText(), "nginx");
    EXPECT_EQ((*row)[2].getLow(), 1);
    EXPECT_EQ((*row)[3].getLow(), 9);
}

// ---- lists and their elements -------------------------------------------------------------------------------------

TEST(SubListTraits, GiveAnEmptyListForNoEnvironment) {
    EXPECT_THAT(VeIpSubListTraits::listOf(nullptr), IsEmpty());
    EXPECT_THAT(VeAppSubListTraits::listOf(nullptr), IsEmpty());
}

TEST(SubListTraits, GiveAnEmptyListWhereTheConfigurationDoesNotHaveIt) {
    EXPECT_THAT(VeIpSubListTraits::listOf(makeEnv(withoutList(1)).get()), IsEmpty());
    EXPECT_THAT(VeAppSubListTraits::listOf(makeEnv(withoutList(1)).get()), IsEmpty());
}

TEST(SubListTraits, TakeAddressesForEqualWhenBothTextsAre) {
    const KXLIPAddress address("10.0.0.1", "255.0.0.0");
    EXPECT_TRUE(VeIpSubListTraits::areEqual(address, KXLIPAddress("10.0.0.1", "255.0.0.0")));
    EXPECT_FALSE(VeIpSubListTraits::areEqual(address, KXLIPAddress("10.0.0.1", "255.255.0.0")));
    EXPECT_FALSE(VeIpSubListTraits::areEqual(address, KXLIPAddress("10.0.0.2", "255.0.0.0")));
}

TEST(SubListTraits, TakeTemplatesForEqualWhenNameAndVersionAreByteForByte) {
    const KXATemplate nginx("nginx", "1");
    EXPECT_TRUE(VeAppSubListTraits::areEqual(nginx, KXATemplate("nginx", "1")));
    EXPECT_FALSE(VeAppSubListTraits::areEqual(nginx, KXATemplate("nginx", "1.0")));
    EXPECT_FALSE(VeAppSubListTraits::areEqual(nginx, KXATemplate("ngin", "1")));
    EXPECT_FALSE(VeAppSubListTraits::areEqual(nginx, KXATemplate("Nginx", "1")));
    EXPECT_FALSE(VeAppSubListTraits::areEqual(KXATemplate(std::string("a\0b", 3), ""), KXATemplate("a", "")));
}

TEST(VeSubTableCursor, IsEqualToAnotherOnTheSameRowOfTheSameListOnly) {
    const auto list = listOf({container(1, {{"0.0.0.1", ""}, {"0.0.0.1", ""}}), container(2, {{"0.0.0.1", ""}})});
    IpCursor one(list.begin(), list.end());
    IpCursor other(list.begin(), list.end());
    EXPECT_TRUE(one == other);
    ++one;
    EXPECT_FALSE(one == other) << "the same element, one place further on";
    ++other;
    EXPECT_TRUE(one == other);
    ++one;
    EXPECT_FALSE(one == other) << "the same element in another container";
    ++one;
    EXPECT_TRUE(one == IpCursor(list.end(), list.end()));
}

TEST(VeSubListCursor, TellsARowFromTheOneThatStandsAtItsPlaceInAListReadLater) {
    const auto before = makeEnv(container(1, {{"0.0.0.1", ""}}));
    const auto same = makeEnv(container(1, {{"0.0.0.1", ""}, {"0.0.0.2", ""}}));
    const auto moved = makeEnv(container(1, {{"0.0.0.2", ""}, {"0.0.0.1", ""}}));
    using ListCursor = VeSubListCursor<VeIpSubListTraits>;
    EXPECT_TRUE(ListCursor(before.get()) == ListCursor(same.get()));
    EXPECT_FALSE(ListCursor(before.get()) == ListCursor(moved.get()));
    EXPECT_FALSE(ListCursor(before.get()) == ListCursor());
    EXPECT_TRUE(ListCursor(nullptr) == ListCursor());
}

// ---- columns ------------------------------------------------------------------------------------------------------

TEST(VeIpTableDataColumn, 1And2AreTheAddressAndItsMask) {
    EXPECT_EQ(addressColumn("10.1.2.3", "255.255.255.0", 1), quad(10, 1, 2, 3));
    EXPECT_EQ(addressColumn("10.1.2.3", "255.255.255.0", 2), quad(255, 255, 255, 0));
}

TEST(VeIpTableDataColumn, OfATextThatIsNoAddressIsAllOnes) {
    for (const char* text : {"", "no quad", "1.2.3.4.5", "1.2.3.256", "fe80::1", "/24", "-1", "255.255.255.255"}) {
        EXPECT_EQ(addressColumn(text, "255.0.0.0", 1), quad(255, 255, 255, 255)) << text;
        EXPECT_EQ(addressColumn("10.0.0.1", text, 2), quad(255, 255, 255, 255)) << text;
    }
}

TEST(VeIpTableDataColumn, 3IsTheContainersNumber) {
    VeIpTableData row(std::numeric_limits<std::int32_t>::max(), KXLIPAddress("10.0.0.1", ""));
    EXPECT_EQ(row[3].getType(), ASN_UNSIGNED);
    EXPECT_EQ(row[3].getLow(), std::numeric_limits<std::int32_t>::max());
}

TEST(VeAppTableDataColumn, 1IsTheNameByteForByte) {
    const std::string name("n\0\xff\n", 4);
    VeAppTableData row(101, KXATemplate(name, "1"));
    EXPECT_EQ(row[1].getType(), ASN_OCTET_STR);
    EXPECT_EQ(row[1].getText(), name);
}

TEST(VeAppTableDataColumn, 2IsTheNumberThatTheVersionBeginsWith) {
    EXPECT_EQ(versionColumn("15"), 15U);
    EXPECT_EQ(versionColumn("2.6"), 2U);
    EXPECT_EQ(versionColumn("  7 "), 7U);
    EXPECT_EQ(versionColumn("10-rc1"), 10U);
}

TEST(VeAppTableDataColumn, 2WithoutANumberIs0) {
    EXPECT_EQ(versionColumn(""), 0U);
    EXPECT_EQ(versionColumn("x7"), 0U);
    EXPECT_EQ(versionColumn("."), 0U);
}

TEST(VeAppTableDataColumn, 2KeepsTheLow32BitsOfALargerNumber) {
    EXPECT_EQ(versionColumn("-3"), 4294967293U);
    EXPECT_EQ(versionColumn("4294967295"), 4294967295U);
    EXPECT_EQ(versionColumn("4294967298"), 2U);
}

TEST(VeAppTableDataColumn, 3IsTheContainersNumber) {
    VeAppTableData row(7, KXATemplate("name", "1"));
    EXPECT_EQ(row[3].getType(), ASN_UNSIGNED);
    EXPECT_EQ(row[3].getLow(), 7);
}

template <typename Row>
void expectNoOtherColumns(Row row) {
    LogCapture log;
    EXPECT_TRUE(row[4].isNull());
    EXPECT_TRUE(row[std::numeric_limits<unsigned>::max()].isNull());
    EXPECT_THAT(log.lines(), IsEmpty()) << "beyond the last tag there is silently nothing";
    EXPECT_TRUE(row[0].isNull());
    EXPECT_THAT(log.lines(), ElementsAre(LogCapture::Line(3, "problem encountered in operator[]: unknown tag 0\n")));
}

TEST(VeIpTableDataColumn, 0IsLoggedAndAbove3ThereIsSilentlyNothing) {
    expectNoOtherColumns(VeIpTableData(101, KXLIPAddress("10.0.0.1", "255.0.0.0")));
}

TEST(VeAppTableDataColumn, 0IsLoggedAndAbove3ThereIsSilentlyNothing) {
    expectNoOtherColumns(VeAppTableData(101, KXATemplate("name", "1")));
}

}  // namespace
