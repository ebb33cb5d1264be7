#include "tables/VeTableData.h"

#include <gmock/gmock.h>

#include <boost/make_shared.hpp>
#include <limits>

#include "Allocations.h"
#include "client/src/values/EnvRecord.h"
#include "link/SNMPNodeLocal.h"
#include "tables/VeAppTableData.h"
#include "tables/VeIpTableData.h"
#include "tables/VeTable.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MakeEnv.h"

namespace {

using namespace kx::test;
using kx::wire::Environment;
using testing::ElementsAre;
using testing::IsEmpty;
using EnvList = KXLEnvCache::EnvValuesList;

constexpr auto emptyIdentifier = "00000000-0000-0000-0000-000000000000";

Environment container(int veid, const std::string& name = "") {
    Environment env = wireEnv(veid);
    env.mutable_configuration()->set_name(name);
    env.mutable_configuration()->set_veid(veid);
    return env;
}

EnvList listOf(const std::vector<Environment>& environments) {
    return makeCache(environments)->getEnvList();
}

VeTableData rowsOf(const EnvList& list) {
    return {list.begin(), list.end()};
}
VeTableData rowsOf(const std::vector<Environment>& environments) {
    return rowsOf(listOf(environments));
}

std::vector<std::int32_t> veidsOf(VeTableData rows) {
    std::vector<std::int32_t> found;
    for (; !rows.atEnd(); rows.advance()) {
        found.push_back(rows[1].getLow());
    }
    return found;
}

/// The text column `tag` of one container.
std::string textOf(const Environment& env, unsigned tag) {
    VeTableData rows = rowsOf({env});
    const ColumnValue value = rows[tag];
    EXPECT_EQ(value.getType(), ASN_OCTET_STR);
    return value.getText();
}

std::string templateText(const std::string& name, const std::string& version) {
    Environment env = container(1);
    env.mutable_configuration()->mutable_os_template()->set_name(name);
    env.mutable_configuration()->mutable_os_template()->set_version(version);
    return textOf(env, 6);
}

// ---- which rows there are ---------------------------------------------------------------------------------------

TEST(VeTableDataRows, WithoutAListThereAreNone) {
    VeTableData rows;
    EXPECT_TRUE(rows.atEnd());
    EXPECT_TRUE(rowsOf(EnvList()).atEnd());
}

TEST(VeTableDataRows, OfAnEmptyListThereAreNone) {
    EXPECT_TRUE(rowsOf(std::vector<Environment>()).atEnd());
}

TEST(VeTableDataRows, OfAListOfOtherTypesThereAreNone) {
    EXPECT_TRUE(rowsOf({wireEnv(1, "host"), wireEnv(2, ""), wireEnv(3, "Lumetra"), wireEnv(4, "lumetra2"),
                        wireEnv(5, "lumetr"), wireEnv(6, " lumetra")})
                    .atEnd());
}

TEST(VeTableDataRows, StartAtTheFirstContainer) {
    EXPECT_THAT(veidsOf(rowsOf({wireEnv(1, "host"), wireEnv(2, ""), container(3)})), ElementsAre(3));
}

TEST(VeTableDataRows, StandInTheListsOrderWithoutTheOthersBetween) {
    EXPECT_THAT(veidsOf(rowsOf({container(300), wireEnv(1, "host"), wireEnv(2, "host"), container(100), container(200),
                                wireEnv(3, "host")})),
                ElementsAre(300, 100, 200));
}

TEST(VeTableDataRows, CompareATypeUpToItsFirstNulByte) {
    Environment withTail = container(7);
    withTail.set_type(std::string("lumetra\0more", 12));
    Environment withHead = container(8);
    withHead.set_type(std::string("\0lumetra", 8));
    EXPECT_THAT(veidsOf(rowsOf({withTail, withHead})), ElementsAre(7));
}

TEST(VeTableDataRows, PassOverEmptyEntriesOfTheList) {
    const boost::intrusive_ptr<KXLEnvCache::Storage> storage(new KXLEnvCache::Storage);
    storage->environments = {nullptr, makeEnv(container(5)), nullptr, nullptr, makeEnv(container(6)), nullptr};
    EXPECT_THAT(veidsOf(rowsOf(EnvList(storage))), ElementsAre(5, 6));
}

/// Notes that its configuration was asked for, which comes before any column of it is read.
class WitnessEnv : public KXLEnv {
public:
    using KXLEnv::KXLEnv;
    const KXLEnvConfig& getConfig() const override {
        ++asked;
        return KXLEnv::getConfig();
    }
    mutable int asked = 0;
};

template <typename Cursor>
void walkOver(const EnvList& list) {
    const ContainerSnapshot<Cursor> snapshot(list);
    const auto end = snapshot.end();
    for (auto cursor = snapshot.begin(); !(cursor == end); ++cursor) {
        auto row = *cursor;
        row[1];
    }
}

TEST(VeTableDataRows, NeverAskEnvironmentsOfOtherTypesForTheirNumber) {
    const boost::intrusive_ptr<kx::client::EnvRecord> host(new kx::client::EnvRecord);
    host->type = "host";
    const boost::intrusive_ptr<kx::client::EnvRecord> container(new kx::client::EnvRecord);
    container->type = "lumetra";
    const auto first = boost::make_shared<const WitnessEnv>(host);
    const auto second = boost::make_shared<const WitnessEnv>(container);
    const auto third = boost::make_shared<const WitnessEnv>(host);
    const boost::intrusive_ptr<KXLEnvCache::Storage> storage(new KXLEnvCache::Storage);
    storage->environments = {first, second, third};
    walkOver<VeTableCursor>(EnvList(storage));
    walkOver<VeIpAddrTable::Cursor>(EnvList(storage));
    walkOver<VeAppTable::Cursor>(EnvList(storage));
    EXPECT_EQ(second->asked, 3) << "once a table";
    EXPECT_EQ(first->asked + third->asked, 0);
}

TEST(VeTableDataRows, OutliveTheCacheTheyCameFrom) {
    auto cache = makeCache({container(5), container(6)});
    const VeTableData rows = rowsOf(cache->getEnvList());
    cache->store().publish(nullptr);
    cache.reset();
    EXPECT_THAT(veidsOf(rows), ElementsAre(5, 6));
}

TEST(VeTableDataRows, HaveNoValuesAtTheEnd) {
    VeTableData rows = rowsOf({container(5)});
    rows.advance();
    EXPECT_TRUE(rows.atEnd());
    for (unsigned tag = 0; tag <= 10; ++tag) {
        EXPECT_TRUE(rows[tag].isNull()) << tag;
    }
    VeTableData none;
    EXPECT_TRUE(none[1].isNull());
}

TEST(VeTableDataRows, OfASnapshotWithoutAnAgentThereAreNone) {
    SNMPNodeLocal::destroy();
    const VeTableSnapshot snapshot;
    EXPECT_TRUE(snapshot.begin() == snapshot.end());
}

TEST(VeTableDataRows, OfASnapshotAreThoseOfTheList) {
    const VeTableSnapshot snapshot(listOf({wireEnv(1, "host"), container(5), wireEnv(2, "host"), container(6)}));
    std::vector<std::int32_t> found;
    for (VeTableCursor cursor = snapshot.begin(); !(cursor == snapshot.end()); ++cursor) {
        VeTableData row(*cursor);
        found.push_back(row[1].getLow());
    }
    EXPECT_THAT(found, ElementsAre(5, 6));
}

// ---- columns ----------------------------------------------------------------------------------------------------

TEST(VeTableDataColumn, 1IsTheVeid) {
    for (const std::int32_t veid :
         {0, 1, 101, -5, std::numeric_limits<std::int32_t>::max(), std::numeric_limits<std::int32_t>::min()}) {
        VeTableData rows = rowsOf({container(veid)});
        EXPECT_EQ(rows[1].getType(), ASN_UNSIGNED);
        EXPECT_EQ(rows[1].getLow(), veid);
    }
}

TEST(VeTableDataColumn, 1WithoutANumberIsAllOnes) {
    VeTableData rows = rowsOf({wireEnv(1)});
    EXPECT_EQ(rows[1].getType(), ASN_UNSIGNED);
    EXPECT_EQ(static_cast<std::uint32_t>(rows[1].getLow()), 4294967295U);
    EXPECT_EQ(rows[1].getHigh(), 0);
}

TEST(VeTableDataColumn, 1AllocatesNothing) {
    VeTableData rows = rowsOf({wireEnv(1, "host"), container(101), wireEnv(2, "host"), container(102)});
    const std::size_t before = allocationCount();
    std::int32_t sum = 0;
    for (; !rows.atEnd(); rows.advance()) {
        sum += rows[1].getLow();
    }
    EXPECT_EQ(allocationCount(), before);
    EXPECT_EQ(sum, 203);
}

TEST(VeTableDataColumn, 2IsTheEnvironmentsIdentifier) {
    Environment env = container(1);
    env.set_eid(std::string("\x0f\x8e\x5c\x1a\x7a\x44\x4c\x3b\x9d\x1e\0\0\0\0\x01\x01", 16));
    EXPECT_EQ(textOf(env, 2), "0f8e5c1a-7a44-4c3b-9d1e-000000000101");
}

TEST(VeTableDataColumn, 3IsTheNameUpToItsFirstNulByte) {
    EXPECT_EQ(textOf(container(1, "web"), 3), "web");
    EXPECT_EQ(textOf(container(1, ""), 3), "");
    EXPECT_EQ(textOf(container(1, std::string("we\0b", 4)), 3), "we");
}

TEST(VeTableDataColumn, 3WithoutACoreRecordEndsTheProcess) {
    const boost::intrusive_ptr<kx::client::EnvRecord> record(new kx::client::EnvRecord);
    record->type = "lumetra";
    const boost::intrusive_ptr<KXLEnvCache::Storage> storage(new KXLEnvCache::Storage);
    storage->environments = {boost::make_shared<const KXLEnv>(record)};
    VeTableData rows = rowsOf(EnvList(storage));
    EXPECT_EQ(rows[4].getText(), "") << "only the core record is needed that much";
    EXPECT_DEATH(rows[3], "px != 0");
}

TEST(VeTableDataColumn, 4And5AreHostNameAndDescriptionUpToTheirFirstNulByte) {
    Environment env = container(1);
    env.mutable_configuration()->set_hostname("web.example");
    env.mutable_configuration()->set_description("front end");
    EXPECT_EQ(textOf(env, 4), "web.example");
    EXPECT_EQ(textOf(env, 5), "front end");
    env.mutable_configuration()->set_hostname(std::string("web\0.example", 12));
    env.mutable_configuration()->set_description(std::string("\0front", 6));
    EXPECT_EQ(textOf(env, 4), "web");
    EXPECT_EQ(textOf(env, 5), "");
}

TEST(VeTableDataColumn, 4And5AreEmptyTextsWhenTheyAreNotSet) {
    EXPECT_EQ(textOf(container(1), 4), "");
    EXPECT_EQ(textOf(container(1), 5), "");
}

TEST(VeTableDataColumn, 6IsNameAndVersionOfTheTemplate) {
    EXPECT_EQ(templateText("debian", "12"), "debian/12");
    EXPECT_EQ(templateText("a/b", "c"), "a/b/c");
}

TEST(VeTableDataColumn, 6NeverIsAVersionByItself) {
    EXPECT_EQ(templateText("debian", ""), "debian");
    EXPECT_EQ(templateText("", "12"), "");
    EXPECT_EQ(templateText("", ""), "");
    EXPECT_EQ(textOf(container(1), 6), "");
}

TEST(VeTableDataColumn, 7IsTheBaseSampleOrTheEmptyIdentifier) {
    Environment env = container(1);
    EXPECT_EQ(textOf(env, 7), emptyIdentifier);
    env.mutable_configuration()->set_base_sample(std::string(15, '\0') + "\xaa");
    EXPECT_EQ(textOf(env, 7), "00000000-0000-0000-0000-0000000000aa");
}

TEST(VeTableDataColumn, 8And9AreTheStatusNumbersAsTheyCome) {
    for (const std::int32_t number :
         {0, 5, -1, std::numeric_limits<std::int32_t>::max(), std::numeric_limits<std::int32_t>::min()}) {
        Environment env = container(1);
        env.set_state(number);
        env.set_transition(3);
        VeTableData rows = rowsOf({env});
        EXPECT_EQ(rows[8].getType(), ASN_INTEGER);
        EXPECT_EQ(rows[8].getLow(), number);
        EXPECT_EQ(rows[9].getType(), ASN_INTEGER);
        EXPECT_EQ(rows[9].getLow(), 3);
    }
}

TEST(VeTableDataColumn, 0IsLoggedAndHasNoValue) {
    LogCapture log;
    VeTableData rows = rowsOf({container(1)});
    EXPECT_TRUE(rows[0].isNull());
    EXPECT_THAT(log.lines(), ElementsAre(LogCapture::Line(3, "problem encountered in operator[]: unknown tag 0\n")));
}

TEST(VeTableDataColumn, Above9ThereIsSilentlyNothing) {
    LogCapture log;
    VeTableData rows = rowsOf({container(1)});
    EXPECT_TRUE(rows[10].isNull());
    EXPECT_TRUE(rows[std::numeric_limits<unsigned>::max()].isNull());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(VeTableDataColumn, 0AtTheEndIsSilent) {
    LogCapture log;
    VeTableData none;
    EXPECT_TRUE(none[0].isNull());
    EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
