#include "mib/Registration.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>

#include "InProcessAgent.h"
#include "link/SNMPNodeLocal.h"
#include "mib/OidLayout.h"
#include "tests/support/LogCapture.h"

namespace {

/// The registration for which the library is to have no memory.
std::string failingName;

}  // namespace

/// Stands before the library's own function of that name, which it calls unless it is to fail.
extern "C" netsnmp_handler_registration* netsnmp_create_handler_registration(const char* name,
                                                                             Netsnmp_Node_Handler* handler,
                                                                             const oid* oidName, size_t length,
                                                                             int modes) {
    static const auto libraryFunction = reinterpret_cast<decltype(&netsnmp_create_handler_registration)>(
        dlsym(RTLD_NEXT, "netsnmp_create_handler_registration"));
    return name == failingName ? nullptr : libraryFunction(name, handler, oidName, length, modes);
}

namespace {

using namespace kx::test;
using testing::ElementsAre;

Oid object(oid number) {
    Oid name(mibRoot.begin(), mibRoot.end());
    name.push_back(number);
    return name;
}

Oid below(oid number, const Oid& rest) {
    Oid name = object(number);
    name.insert(name.end(), rest.begin(), rest.end());
    return name;
}

netsnmp_handler_registration* registrationOf(const Oid& name) {
    netsnmp_subtree* const subtree = netsnmp_subtree_find(name.data(), name.size(), nullptr, "");
    return subtree == nullptr ? nullptr : subtree->reginfo;
}

/// Without an agent link nothing has a value, but everything answers.
class Registration : public testing::Test {
protected:
    static void SetUpTestSuite() {
        SNMPNodeLocal::destroy();
        agent_ = &InProcessAgent::instance();
        LogCapture log;
        register_tables();
        register_scalars();
        log_ = log.lines();
    }

    static inline InProcessAgent* agent_ = nullptr;
    static inline std::vector<LogCapture::Line> log_;
};

TEST_F(Registration, LogsEachTableInOrderAndNoScalar) {
    std::vector<LogCapture::Line> expected;
    for (const std::string name :
         {"KxVeTable", "KxVeIpAddrTable", "KxVeAppAddrTable", "KxVeQuotaTable", "KxVeNetstatTable"}) {
        expected.emplace_back(4, "Initializing the " + name + "\n");
        expected.emplace_back(4, "Done initializing the " + name + "\n");
    }
    EXPECT_EQ(log_, expected);
}

/// What a name is registered as; the library itself has registrations near the root of the tree.
std::string nameOf(const Oid& name) {
    const auto* const registration = registrationOf(name);
    return registration == nullptr ? "" : registration->handlerName;
}

/// In a process of its own, where nothing is registered yet.
[[noreturn]] void registerWithoutMemoryForOne() {
    InProcessAgent::instance();
    LogCapture log;
    failingName = "KxVeIpAddrTable";
    register_tables();
    const std::vector<LogCapture::Line> expected = {
        {4, "Initializing the KxVeTable\n"},        {4, "Done initializing the KxVeTable\n"},
        {4, "Initializing the KxVeIpAddrTable\n"},  {3, "memory allocation failed in register_table"},
        {4, "Initializing the KxVeAppAddrTable\n"}, {4, "Done initializing the KxVeAppAddrTable\n"},
        {4, "Initializing the KxVeQuotaTable\n"},   {4, "Done initializing the KxVeQuotaTable\n"},
        {4, "Initializing the KxVeNetstatTable\n"}, {4, "Done initializing the KxVeNetstatTable\n"},
    };
    const bool othersAreThere = nameOf(object(4)) == "KxVeTable" && nameOf(object(8)) == "KxVeNetstatTable";
    _exit(log.lines() == expected && othersAreThere && nameOf(object(5)) != failingName ? 0 : 1);
}

TEST(RegistrationDeathTest, LeavesOutATableForWhichThereIsNoMemoryAndGoesOn) {
    EXPECT_EXIT(registerWithoutMemoryForOne(), testing::ExitedWithCode(0), "");
}

/// In a process of its own. The library frees a registration that it refuses.
[[noreturn]] void registerTwice() {
    InProcessAgent::instance();
    register_tables();
    LogCapture log;
    register_tables();
    const LogCapture::Line refused(3, "memory allocation failed in register_table");
    const auto lines = log.lines();
    _exit(std::count(lines.begin(), lines.end(), refused) == 5 && nameOf(object(4)) == "KxVeTable" ? 0 : 1);
}

TEST(RegistrationDeathTest, LeavesOutATableThatTheLibraryRefuses) {
    EXPECT_EXIT(registerTwice(), testing::ExitedWithCode(0), "");
}

struct TableCase {
    oid number;
    const char* name;
    unsigned maxColumn;
    std::vector<std::pair<unsigned, int>> keys;  // type and tag
};

const std::vector<TableCase> tables = {
    {4, "KxVeTable", 9, {{66, 1}}},
    {5, "KxVeIpAddrTable", 2, {{66, 3}, {64, 1}}},
    {6, "KxVeAppAddrTable", 2, {{66, 3}, {4, 1}}},
    {7, "KxVeQuotaTable", 8, {{66, 9}}},
    {8, "KxVeNetstatTable", 5, {{66, 6}, {66, 1}}},
};

TEST_F(Registration, GivesTheLibraryEachTablesColumnsAndIndexes) {
    for (const TableCase& expected : tables) {
        netsnmp_handler_registration* const registration = registrationOf(object(expected.number));
        ASSERT_NE(registration, nullptr) << expected.name;
        EXPECT_STREQ(registration->handlerName, expected.name);
        EXPECT_EQ(Oid(registration->rootoid, registration->rootoid + registration->rootoid_len),
                  object(expected.number));
        const auto* const info = netsnmp_find_table_registration_info(registration);
        ASSERT_NE(info, nullptr) << expected.name;
        EXPECT_EQ(info->min_column, 1U) << expected.name;
        EXPECT_EQ(info->max_column, expected.maxColumn) << expected.name;
        std::vector<std::pair<unsigned, int>> keys;
        for (const netsnmp_variable_list* key = info->indexes; key != nullptr; key = key->next_variable) {
            keys.emplace_back(key->type, key->index);
        }
        EXPECT_EQ(keys, expected.keys) << expected.name;
    }
}

TEST_F(Registration, LeavesTheRowsUnsortedAndFreesTheLoopOnlyAtItsEnd) {
    for (const TableCase& expected : tables) {
        netsnmp_mib_handler* handler = registrationOf(object(expected.number))->handler;
        while (handler != nullptr && std::string(handler->handler_name) != TABLE_ITERATOR_NAME) {
            handler = handler->next;
        }
        ASSERT_NE(handler, nullptr) << expected.name;
        const auto* const info = static_cast<const netsnmp_iterator_info*>(handler->myvoid);
        EXPECT_EQ(info->flags, 0);
        EXPECT_EQ(info->free_loop_context, nullptr);
        EXPECT_EQ(info->myvoid, nullptr);
        EXPECT_NE(info->get_first_data_point, nullptr);
        EXPECT_NE(info->get_next_data_point, nullptr);
        EXPECT_NE(info->make_data_context, nullptr);
        EXPECT_NE(info->free_data_context, nullptr);
        EXPECT_NE(info->free_loop_context_at_end, nullptr);
    }
}

TEST_F(Registration, OffersNoWriting) {
    for (const oid number : {1UL, 2UL, 4UL, 5UL, 6UL, 7UL, 8UL}) {
        netsnmp_handler_registration* const registration = registrationOf(below(number, {0}));
        ASSERT_NE(registration, nullptr) << number;
        EXPECT_EQ(registration->modes & HANDLER_CAN_SET, 0) << number;
        EXPECT_EQ(agent_->set(below(number, number < 4 ? Oid{0} : Oid{1, 1, 101})), SNMP_ERR_NOTWRITABLE) << number;
    }
}

// The library has put the instance 0 behind the name, and counts it only while it calls the handler.
TEST_F(Registration, NamesTheScalarsAndTheirInstance) {
    for (const oid number : {1UL, 2UL}) {
        netsnmp_handler_registration* const registration = registrationOf(below(number, {0}));
        ASSERT_NE(registration, nullptr);
        EXPECT_STREQ(registration->handlerName, "KxScalar");
        EXPECT_EQ(Oid(registration->rootoid, registration->rootoid + registration->rootoid_len + 1),
                  below(number, {0}));
    }
}

TEST_F(Registration, AnswersBothScalarsInOneRequest) {
    const auto answers = agent_->get({below(2, {0}), below(1, {0})});
    EXPECT_THAT(answers, ElementsAre(Answer{below(2, {0}), ASN_OCTET_STR, ""},
                                     Answer{below(1, {0}), ASN_OCTET_STR, KXLEID::EID_INVALID.toString()}));
}

TEST_F(Registration, LeavesOtherInstancesOfAScalarToTheLibrary) {
    const auto answers = agent_->get({object(1), below(1, {1}), below(1, {0, 0})});
    ASSERT_EQ(answers.size(), 3U);
    for (const Answer& answer : answers) {
        EXPECT_TRUE(answer.type == SNMP_NOSUCHINSTANCE || answer.type == SNMP_NOSUCHOBJECT) << answer.type;
    }
}

TEST_F(Registration, WalksTheScalarsAndThroughTablesWithoutRows) {
    const auto answers = agent_->walk(Oid(mibRoot.begin(), mibRoot.end()));
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers[0].name, below(1, {0}));
    EXPECT_EQ(answers[1].name, below(2, {0}));
}

TEST_F(Registration, HasNoInstanceInAnEmptyTableNorBesideItsColumns) {
    for (const TableCase& table : tables) {
        for (const oid column : {0UL, 1UL, oid{table.maxColumn}, oid{table.maxColumn + 1}}) {
            const auto answers = agent_->get({below(table.number, {1, column, 101})});
            ASSERT_EQ(answers.size(), 1U);
            EXPECT_TRUE(answers[0].type == SNMP_NOSUCHINSTANCE || answers[0].type == SNMP_NOSUCHOBJECT)
                << table.name << " column " << column << " type " << answers[0].type;
        }
    }
}

TEST_F(Registration, AnswersNothingForTheNotificationObjects) {
    for (const oid number : {3UL, 9UL, 10UL, 11UL}) {
        EXPECT_EQ(agent_->get({below(number, {0})})[0].type, SNMP_NOSUCHOBJECT) << number;
    }
}

}  // namespace
