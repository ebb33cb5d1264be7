#include "daemon/traps/SNMPVeQoSNotificationSender.h"

#include <gmock/gmock.h>

#include <array>
#include <boost/make_shared.hpp>

#include "daemon/traps/MasterSession.h"
#include "daemon/traps/SNMPNotificationData.h"
#include "tests/unit/traps/TrapCapture.h"

namespace kx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

OwnedOid oidOf(const Oid& subIds) {
    OwnedOid result;
    result.assign(subIds.size(), subIds.data());
    return result;
}

Oid subIdsOf(const OwnedOid& name) {
    return {name.subIds(), name.subIds() + name.length()};
}

ColumnValue numberOf(std::int32_t value) {
    ColumnValue result(ASN_INTEGER);
    result.setInt32(value);
    return result;
}

std::string nativeLong(long value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

/// What is sent for one event.
std::vector<Trap> send(const KXLEvent& event, int expectedResult = 0) {
    const TrapCapture capture;
    SNMPVeQoSNotificationSender sender;
    const int result = sender.receive(event);
    if (expectedResult == 0) {
        EXPECT_EQ(result, 0);
    } else {
        EXPECT_NE(result, 0);
    }
    return capture.traps();
}

class NotificationSender : public testing::Test {
protected:
    static void SetUpTestSuite() { MasterSession::watch(); }

    KXLEvent event() const { return {"ve_qos_notification", data}; }

    boost::shared_ptr<SNMPNotificationData> data = boost::make_shared<SNMPNotificationData>();
};

// ---- object identifiers ---------------------------------------------------------------------------------------------

TEST(OwnedOid, IsEmptyAtFirst) {
    const OwnedOid name;
    EXPECT_EQ(name.length(), 0U);
    EXPECT_EQ(name.subIds(), nullptr);
}

TEST(OwnedOid, CopiesTheArrayItIsGiven) {
    Oid subIds = {1, 3, 6};
    const OwnedOid name = oidOf(subIds);
    subIds[0] = 9;
    EXPECT_THAT(subIdsOf(name), ElementsAre(1, 3, 6));
}

TEST(OwnedOid, CopiesHaveArraysOfTheirOwn) {
    OwnedOid name = oidOf({1, 3, 6});
    const OwnedOid copy(name);
    OwnedOid assigned;
    assigned = name;
    EXPECT_NE(copy.subIds(), name.subIds());
    EXPECT_NE(assigned.subIds(), name.subIds());
    name.assign(0, nullptr);
    EXPECT_EQ(name.subIds(), nullptr);
    EXPECT_THAT(subIdsOf(copy), ElementsAre(1, 3, 6));
    EXPECT_THAT(subIdsOf(assigned), ElementsAre(1, 3, 6));
}

TEST(OwnedOid, TakesAPartOfItself) {
    OwnedOid name = oidOf({1, 3, 6, 1});
    name.assign(2, name.subIds() + 2);
    EXPECT_THAT(subIdsOf(name), ElementsAre(6, 1));
    OwnedOid& same = name;
    name = same;
    EXPECT_THAT(subIdsOf(name), ElementsAre(6, 1));
}

TEST(SNMPNotificationData, IsAnEnterpriseSpecificTrapWithoutAnything) {
    const SNMPNotificationData data;
    EXPECT_EQ(data.genericTrap, 6);
    EXPECT_EQ(data.specificTrap, 0);
    EXPECT_EQ(data.enterprise.length(), 0U);
    EXPECT_THAT(data.variables, IsEmpty());
    EXPECT_EQ(SNMPNotificationData::category, "ve_qos_notification");
}

// ---- sending
// ----------------------------------------------------------------------------------------------------------

TEST_F(NotificationSender, SendsTheNumbersTheEnterpriseAndTheVariables) {
    data->specificTrap = 7;
    data->enterprise = oidOf({1, 3, 6, 1, 4, 1, 53864, 2});
    ColumnValue text(ASN_OCTET_STR);
    text.setFromString(std::string("a\0b", 3));
    data->variables = {{numberOf(-5), oidOf({1, 3, 6, 1, 4, 1, 53864, 8})},
                       {text, oidOf({1, 3, 6, 1, 4, 1, 53864, 9})}};
    const auto traps = send(event());
    ASSERT_THAT(traps, SizeIs(1));
    EXPECT_EQ(traps[0].genericTrap, 6);
    EXPECT_EQ(traps[0].specificTrap, 7);
    EXPECT_THAT(traps[0].enterprise, ElementsAre(1, 3, 6, 1, 4, 1, 53864, 2));
    EXPECT_THAT(traps[0].variables,
                ElementsAre(TrapVariable{{1, 3, 6, 1, 4, 1, 53864, 8}, ASN_INTEGER, nativeLong(-5)},
                            TrapVariable{{1, 3, 6, 1, 4, 1, 53864, 9}, ASN_OCTET_STR, std::string("a\0b", 3)}));
}

TEST_F(NotificationSender, SendsVariablesInTheirOrderWhateverTheirNames) {
    data->enterprise = oidOf({1, 3, 6, 1, 4, 1, 53864, 2});
    for (const oid last : {5, 1, 9, 1, 3}) {
        data->variables.push_back({numberOf(static_cast<std::int32_t>(last)), oidOf({1, 3, last})});
    }
    const auto traps = send(event());
    ASSERT_THAT(traps, SizeIs(1));
    std::vector<oid> order;
    for (const TrapVariable& variable : traps[0].variables) {
        order.push_back(variable.name.back());
    }
    EXPECT_THAT(order, ElementsAre(5, 1, 9, 1, 3));
}

TEST_F(NotificationSender, SendsATrapWithoutVariables) {
    data->enterprise = oidOf({1, 3, 6, 1, 4, 1, 53864, 2});
    const auto traps = send(event());
    ASSERT_THAT(traps, SizeIs(1));
    EXPECT_THAT(traps[0].variables, IsEmpty());
}

TEST_F(NotificationSender, SendsTheSameNotificationAgainAndLeavesItAsItIs) {
    data->enterprise = oidOf({1, 3, 6, 1, 4, 1, 53864, 2});
    data->variables = {{numberOf(1), oidOf({1, 3, 1})}};
    EXPECT_EQ(send(event())[0].variables, send(event())[0].variables);
    EXPECT_THAT(data->variables, SizeIs(1));
}

TEST_F(NotificationSender, PassesOverEventsOfOtherCategories) {
    for (const std::string category :
         {"", "resource_alert", "ve_qos_notificatio", "ve_qos_notification2", "VE_QOS_NOTIFICATION"}) {
        EXPECT_THAT(send({category, data}, 1), IsEmpty()) << category;
        EXPECT_THAT(send({category, nullptr}, 1), IsEmpty()) << "the payload is not touched";
    }
}

TEST_F(NotificationSender, EndsTheProcessAtAnEventWithoutANotification) {
    EXPECT_DEATH(send({"ve_qos_notification", nullptr}), "px != 0");
    EXPECT_DEATH(send({"ve_qos_notification", boost::make_shared<KXLResourceAlertData>()}), "px != 0");
}

}  // namespace
}  // namespace kx::test
