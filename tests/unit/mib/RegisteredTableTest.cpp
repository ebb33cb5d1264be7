// Tables read the whole way through the library's registry, table and iterator helpers: one expected tree each.
#include <gmock/gmock.h>

#include "AddressTable.h"
#include "InProcessAgent.h"
#include "mib/OidLayout.h"

namespace {

using namespace kx::test;
using testing::ElementsAre;
using testing::ElementsAreArray;

// Beside everything that is published.
const Oid tableOid = {1, 3, 6, 1, 4, 1, 53864, 99, 1};

Oid instance(oid column, const Oid& index) {
    Oid name = tableOid;
    name.push_back(1);
    name.push_back(column);
    name.insert(name.end(), index.begin(), index.end());
    return name;
}

Answer address(const Oid& index, const std::string& bytes) {
    return {instance(1, index), ASN_IPADDRESS, bytes};
}
Answer note(const Oid& index, const std::string& text) {
    return {instance(2, index), ASN_OCTET_STR, text};
}
Answer noInstance(oid column, const Oid& index) {
    return {instance(column, index), SNMP_NOSUCHINSTANCE, ""};
}
// The table helper turns columns outside the registered range away before the table is asked.
Answer noColumn(oid column, const Oid& index) {
    return {instance(column, index), SNMP_NOSUCHOBJECT, ""};
}

class RegisteredTable : public testing::Test {
protected:
    static void SetUpTestSuite() {
        agent_ = &InProcessAgent::instance();
        static netsnmp_table_registration_info tableInfo{};
        static netsnmp_iterator_info iterator{};
        tableInfo.min_column = 1;
        tableInfo.max_column = 2;
        KeyIndexes<AddressTable::Keys, AddressTable::maxColumn>::add_indexes(&tableInfo);
        iterator = addressCallbacks(&tableInfo);
        netsnmp_register_table_iterator(
            netsnmp_create_handler_registration("AddressTable", &AddressHelper::final_handler, tableOid.data(),
                                                tableOid.size(), HANDLER_CAN_RONLY),
            &iterator);
    }

    RegisteredTable() {
        // Not in the order of their indexes, and nothing sorts them.
        AddressSnapshot::table = {
            {-1, "255.255.255.255", "all ones"},
            {102, "10.0.0.9", "third"},
            {101, "10.0.0.1", "second"},
            {101, "9.0.0.1", "first"},
        };
    }

    ~RegisteredTable() override {
        AddressSnapshot::table.clear();
        EXPECT_EQ(AddressSnapshot::alive(), 0);
        EXPECT_EQ(AddressRow::alive(), 0);
    }

    static std::vector<Answer> expectedTree() {
        return {
            address({101, 9, 0, 0, 1}, std::string("\x09\0\0\x01", 4)),
            address({101, 10, 0, 0, 1}, std::string("\x0a\0\0\x01", 4)),
            address({102, 10, 0, 0, 9}, std::string("\x0a\0\0\x09", 4)),
            address({4294967295, 255, 255, 255, 255}, "\xff\xff\xff\xff"),
            note({101, 9, 0, 0, 1}, "first"),
            note({101, 10, 0, 0, 1}, "second"),
            note({102, 10, 0, 0, 9}, "third"),
            note({4294967295, 255, 255, 255, 255}, "all ones"),
        };
    }

    static inline InProcessAgent* agent_ = nullptr;
};

TEST_F(RegisteredTable, IsWalkedInTheOrderOfItsIndexes) {
    EXPECT_THAT(agent_->walk(tableOid), ElementsAreArray(expectedTree()));
}

TEST_F(RegisteredTable, IsWalkedByGetBulkToo) {
    auto answers = agent_->getBulk(tableOid, 10);
    ASSERT_GE(answers.size(), 8U);
    answers.resize(8);
    EXPECT_THAT(answers, ElementsAreArray(expectedTree()));
}

TEST_F(RegisteredTable, AnswersEveryInstanceByItself) {
    for (const Answer& expected : expectedTree()) {
        EXPECT_THAT(agent_->get({expected.name}), ElementsAre(expected));
    }
}

TEST_F(RegisteredTable, AnswersEveryInstanceInOneRequest) {
    std::vector<Oid> names;
    for (const Answer& expected : expectedTree()) {
        names.push_back(expected.name);
    }
    EXPECT_THAT(agent_->get(names), ElementsAreArray(expectedTree()));
}

TEST_F(RegisteredTable, MixesFoundAndMissingInOneRequest) {
    EXPECT_THAT(agent_->get({instance(2, {101, 9, 0, 0, 2}), instance(2, {102, 10, 0, 0, 9}),
                             instance(0, {102, 10, 0, 0, 9}), instance(3, {102, 10, 0, 0, 9})}),
                ElementsAre(noInstance(2, {101, 9, 0, 0, 2}), note({102, 10, 0, 0, 9}, "third"),
                            noColumn(0, {102, 10, 0, 0, 9}), noColumn(3, {102, 10, 0, 0, 9})));
}

TEST_F(RegisteredTable, FindsTheNextOfSeveralNamesInOneRequest) {
    EXPECT_THAT(
        agent_->getNext({instance(2, {101, 9, 0, 0, 1}), instance(1, {101, 9, 0, 0, 1}), tableOid}),
        ElementsAre(note({101, 10, 0, 0, 1}, "second"), address({101, 10, 0, 0, 1}, std::string("\x0a\0\0\x01", 4)),
                    address({101, 9, 0, 0, 1}, std::string("\x09\0\0\x01", 4))));
}

// Whoever sends a trap holds the link's lock and waits for the library's; taking a snapshot or reading a column may
// wait for the link's.
TEST_F(RegisteredTable, IsReadWithoutTheLibrarysLockWhichIsTakenAgain) {
    AddressSnapshot::taken = {};
    AddressRow::notes = {};
    {
        const InLibrary library;
        EXPECT_THAT(agent_->walk(tableOid), ElementsAreArray(expectedTree()));
        EXPECT_TRUE(LibraryLock::isHeldHere());
    }
    EXPECT_GE(AddressSnapshot::taken.reads, 8);
    EXPECT_EQ(AddressSnapshot::taken.locked, 0);
    EXPECT_EQ(AddressRow::notes.reads, 4);
    EXPECT_EQ(AddressRow::notes.locked, 0);
    EXPECT_FALSE(LibraryLock::isHeldHere());
}

TEST_F(RegisteredTable, WithoutRowsIsPassedOver) {
    AddressSnapshot::table.clear();
    EXPECT_TRUE(agent_->walk(tableOid).empty());
    EXPECT_EQ(agent_->get({instance(1, {101, 9, 0, 0, 1})})[0].type, SNMP_NOSUCHINSTANCE);
}

TEST_F(RegisteredTable, IsAsItWasWhenEachRequestCame) {
    const Oid name = instance(2, {101, 9, 0, 0, 1});
    EXPECT_EQ(agent_->get({name})[0].value, "first");
    AddressSnapshot::table[3].note = "changed";
    EXPECT_EQ(agent_->get({name})[0].value, "changed");
    AddressSnapshot::table.pop_back();
    EXPECT_EQ(agent_->get({name})[0].type, SNMP_NOSUCHINSTANCE);
}

}  // namespace
