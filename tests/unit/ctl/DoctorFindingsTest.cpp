// What kxctl doctor makes of what it sees, where that does not depend on the host.
#include <gmock/gmock.h>

#include <cerrno>

#include "ctl/doctor/AgentChecks.h"
#include "ctl/doctor/HostChecks.h"
#include "ctl/doctor/SnmpChecks.h"

namespace kx::ctl {
namespace {

using testing::ElementsAre;

TEST(Versions, AreFineWhenTheyAreEqual) {
    EXPECT_EQ(compareVersions("kxctl 0.1.0", "kxagentd 0.1.0").verdict, Verdict::Ok);
    EXPECT_EQ(compareVersions("kxctl 0.1.0", "kxagentd 0.2.0").verdict, Verdict::Warn);
    EXPECT_EQ(compareVersions("kxctl 0.1.0", "").verdict, Verdict::Warn);
}

TEST(Quotas, AreNeverAFailure) {
    EXPECT_EQ(quotaFinding(0, "/x").verdict, Verdict::Ok);
    for (const int error : {ESRCH, ENOSYS, EPERM, ENOENT, EOPNOTSUPP}) {
        EXPECT_EQ(quotaFinding(error, "/x").verdict, Verdict::Warn);
        EXPECT_NE(quotaFinding(error, "/x").todo, "");
    }
    EXPECT_THAT(quotaFinding(ESRCH, "/x").todo, testing::HasSubstr("prjquota"));
}

constexpr const char* kSockets =
    "Num       RefCount Protocol Flags    Type St Inode Path\n"
    "0000000000000000: 00000002 00000000 00010000 0001 01 26377 /var/agentx/master\n"
    "0000000000000000: 00000003 00000000 00000000 0001 03 26378 /var/agentx/master\n"
    "0000000000000000: 00000003 00000000 00000000 0001 03 26379 /var/agentx/master\n"
    "0000000000000000: 00000003 00000000 00000000 0001 03 26380 /var/agentx/master2\n"
    "0000000000000000: 00000003 00000000 00000000 0001 03 26381\n"
    "0000000000000000: 00000002 00000000 00010000 0001 01 26382 /with a space\n";

TEST(Sockets, AreCountedByTheirPath) {
    EXPECT_TRUE(socketUse(kSockets, "/var/agentx/master").isListening);
    EXPECT_EQ(socketUse(kSockets, "/var/agentx/master").connections, 2U);
    EXPECT_FALSE(socketUse(kSockets, "/var/agentx/master2").isListening);
    EXPECT_TRUE(socketUse(kSockets, "/with a space").isListening);
    EXPECT_FALSE(socketUse("", "/var/agentx/master").isListening);
}

TEST(MibFolders, AreThoseOfTheTools) {
    EXPECT_THAT(mibFolders(nullptr, "/home/me"),
                ElementsAre("/home/me/.snmp/mibs", "/usr/share/snmp/mibs", "/usr/local/share/snmp/mibs"));
    EXPECT_THAT(mibFolders("/a:/b", "/home/me"), ElementsAre("/a", "/b"));
    EXPECT_THAT(mibFolders("+/a", nullptr), ElementsAre("/a", "/usr/share/snmp/mibs", "/usr/local/share/snmp/mibs"));
}

}  // namespace
}  // namespace kx::ctl
