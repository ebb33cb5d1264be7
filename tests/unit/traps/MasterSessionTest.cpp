#include "daemon/traps/MasterSession.h"

#include <gmock/gmock.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <csignal>
#include <thread>

#include "daemon/traps/SNMPNotificationData.h"
#include "daemon/traps/SNMPVeQoSNotificationSender.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/traps/FakeMaster.h"

namespace kx::test {
namespace {

using Room = MasterSession::Room;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class MasterSessions : public testing::Test {
protected:
    static void SetUpTestSuite() {
        std::signal(SIGPIPE, SIG_IGN);  // as kxsnmp does
        MasterSession::watch();
    }

    /// @brief Sends a trap of about that size.
    static void sendTrap(std::size_t bytes = 100) {
        const auto data = boost::make_shared<SNMPNotificationData>();
        const oid name[] = {1, 3};
        data->enterprise.assign(2, name);
        data->variables.resize(1);
        data->variables[0].value = ColumnValue(ASN_OCTET_STR);
        data->variables[0].value.setFromString(std::string(bytes, 'x'));
        data->variables[0].name.assign(2, name);
        SNMPVeQoSNotificationSender().receive(KXLEvent(SNMPNotificationData::category, data));
    }
    static Room room() { return MasterSession::instance().room(); }
};

TEST_F(MasterSessions, HaveRoomFromTheirBeginningToTheirEnd) {
    EXPECT_EQ(room(), Room::NoSession);
    FakeMaster master;
    EXPECT_EQ(room(), Room::Ample);
    master.end();
    EXPECT_EQ(room(), Room::NoSession);
}

TEST_F(MasterSessions, HaveScarceRoomAndThenNoneWhileTheMasterDoesNotRead) {
    const FakeMaster master;
    int traps = 0;
    for (; room() == Room::Ample; ++traps) {
        sendTrap(1000);
    }
    EXPECT_EQ(room(), Room::Scarce);
    EXPECT_GT(traps, 16) << "48 KiB of them";
    for (; room() == Room::Scarce; ++traps) {
        sendTrap(1000);
    }
    EXPECT_EQ(room(), Room::None);
    EXPECT_LT(traps, 128);
    master.readAll();
    EXPECT_EQ(room(), Room::Ample);
}

TEST_F(MasterSessions, HaveScarceRoomWhileWeDoNotRead) {
    const FakeMaster master;
    master.write(2000);
    EXPECT_EQ(room(), Room::Ample);
    master.write(48);
    EXPECT_EQ(room(), Room::Scarce);
}

TEST_F(MasterSessions, TakeNoTrapThatMightWaitForTheMasterAndCountIt) {
    const LogCapture log;
    const FakeMaster master;
    while (room() != Room::None) {
        sendTrap(1000);
    }
    master.readAll();
    sendTrap();
    EXPECT_THAT(log.lines(), IsEmpty());
    while (room() != Room::None) {
        sendTrap(1000);
    }
    const auto started = std::chrono::steady_clock::now();
    for (int alert = 0; alert < 500; ++alert) {
        sendTrap(1000);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
    EXPECT_THAT(log.lines(), ElementsAre(Pair(LOG_WARNING,
                                              "alerts are dropped until traps can be sent again: the master "
                                              "agent does not read\n")));
    master.readAll();
    sendTrap();
    EXPECT_THAT(log.lines().back(),
                Pair(LOG_WARNING, "500 alerts not sent as traps: the master agent does not read\n"));
    EXPECT_GT(master.readAll(), 100U);
}

TEST_F(MasterSessions, ThatAreNotThereTakeNoTrapAndItIsCounted) {
    const LogCapture log;
    sendTrap();
    sendTrap();
    EXPECT_EQ(log.lines().size(), 1U);
    const FakeMaster master;
    sendTrap();
    EXPECT_THAT(log.lines().back(),
                Pair(LOG_WARNING, "2 alerts not sent as traps: there is no session with the master agent\n"));
}

TEST_F(MasterSessions, ThatTheMasterHasLeftCountWhatTheyCannotSend) {
    const LogCapture log;
    {
        const FakeMaster master;
        master.hangUp();
        sendTrap();
    }
    const FakeMaster next;
    sendTrap();
    EXPECT_THAT(log.lines().back(),
                Pair(LOG_WARNING, "1 alerts not sent as traps: the connection to the master agent is lost\n"));
}

TEST_F(MasterSessions, SendATrapOnceHoweverLongTheMasterDoesNotConfirmIt) {
    FakeMaster master;
    master.session().timeout = 1;  // microseconds
    sendTrap();
    EXPECT_GT(master.readAll(), 100U);
    const InLibrary library;
    snmp_timeout();
    EXPECT_EQ(master.readAll(), 0U);
    EXPECT_EQ(master.session().timeout, 1) << "what else is sent is to be sent again, such as pings";
}

TEST_F(MasterSessions, LogHowManyTrapsWereNotConfirmedAtTheirEnd) {
    const LogCapture log;
    {
        FakeMaster master;
        sendTrap();
        sendTrap();
        sendTrap();
        master.session().trap_stats->ack_count = 1;
    }
    EXPECT_THAT(log.lines(),
                ElementsAre(Pair(LOG_WARNING,
                                 "session with the master agent ended: 2 traps sent and not confirmed, may "
                                 "be lost\n")));
}

TEST_F(MasterSessions, ThatAreCutOffLetNobodyWaitForTheMaster) {
    FakeMaster master;
    netsnmp_transport* const transport = snmp_sess_transport(snmp_sess_pointer(&master.session()));
    std::thread waiting([&] {
        char byte = 0;
        EXPECT_EQ(::recv(transport->sock, &byte, 1, 0), 0);
    });
    MasterSession::instance().cutOff();
    waiting.join();
}

TEST_F(MasterSessions, LetNoAnswerWaitForAMasterThatNeverReads) {
    FakeMaster master;
    netsnmp_transport* const transport = snmp_sess_transport(snmp_sess_pointer(&master.session()));
    const std::string answer(1000, 'x');
    while (::send(transport->sock, answer.data(), answer.size(), 0) > 0) {
    }
    EXPECT_EQ(errno, EAGAIN);
}

}  // namespace
}  // namespace kx::test
