// What kxctl doctor makes of what it sees, where that does not depend on the host.
#include <gmock/gmock.h>

#include <cerrno>

#include "ctl/doctor/AgentChecks.h"
#include "ctl/doctor/HostChecks.h"
#include "ctl/doctor/MibChecks.h"
#include "ctl/doctor/Processes.h"
#include "ctl/doctor/SnmpChecks.h"

namespace kx::ctl {
namespace {

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

// ---- what runs ----------------------------------------------------------------------------------------------------

TEST(Programs, RunOnThisHostWhenTheyHaveOneIdAlone) {
    EXPECT_TRUE(isRunning("Name:\tkxsnmp\nState:\tS (sleeping)\nPid:\t7\nNSpid:\t7\n", "kxsnmp"));
    EXPECT_TRUE(isRunning("Name:\tkxsnmp\nState:\tS (sleeping)\nPid:\t7\n", "kxsnmp"));
    EXPECT_FALSE(isRunning("Name:\tkxsnmp\nState:\tS (sleeping)\nPid:\t7\nNSpid:\t7\t1\n", "kxsnmp"));
}

TEST(Programs, AreThoseOfTheNameThatHaveNotEnded) {
    EXPECT_FALSE(isRunning("Name:\tkxsnmpd\nState:\tS (sleeping)\nNSpid:\t7\n", "kxsnmp"));
    EXPECT_FALSE(isRunning("Name:\tkxsnmp\nState:\tZ (zombie)\nNSpid:\t7\n", "kxsnmp"));
    EXPECT_FALSE(isRunning("", "kxsnmp"));
}

TEST(Programs, AreOutdatedWhenTheirFilesOrTheLibrarysAreGone) {
    const std::string fine =
        "55d0-55d1 r-xp 00002000 08:01 77   /usr/sbin/kxsnmp\n"
        "7f00-7f01 r-xp 00000000 08:01 78   /usr/lib/x86_64-linux-gnu/libkxclient.so.0.1.0\n"
        "7f02-7f03 rw-s 00000000 00:01 79   /memfd:something (deleted)\n"
        "7f04-7f05 rw-p 00000000 00:00 0\n";
    EXPECT_FALSE(isOutdated(fine, "kxsnmp"));
    EXPECT_TRUE(isOutdated(fine + "55d2-55d3 r-xp 00000000 08:01 70   /usr/sbin/kxsnmp (deleted)\n", "kxsnmp"));
    EXPECT_FALSE(isOutdated(fine + "55d2-55d3 r-xp 00000000 08:01 70   /usr/sbin/other (deleted)\n", "kxsnmp"));
    EXPECT_TRUE(
        isOutdated(fine + "7f08-7f09 r-xp 00000000 08:01 70   /lib/libkxclient.so.0.0.9 (deleted)\n", "kxsnmp"));
    EXPECT_FALSE(isOutdated("", "kxsnmp"));
}

TEST(Processes, ThatCannotBeReadAreTold) {
    EXPECT_THAT(readProcess("self", "status"), testing::Optional(testing::HasSubstr("\nNSpid:")));
    EXPECT_EQ(readProcess("self", "no-such-file"), std::nullopt);
    EXPECT_EQ(readProcess("self", "task"), std::nullopt);  // opens, but is a folder
}

// ---- names of the MIB module --------------------------------------------------------------------------------------

constexpr const char* kKnown = ".1.3.6.1.4.1.53864.1.1.1\n";
constexpr const char* kUnknown = "Unknown object identifier: kxServerEid\n";

TEST(MibNames, AreFineWhenTheyResolveUnaidedWhateverElseIsSaid) {
    EXPECT_EQ(mibFinding(kKnown, kUnknown).verdict, Verdict::Ok);
    EXPECT_EQ(mibFinding(std::string("Cannot find module (IF-MIB): At line 1 in (none)\n") + kKnown, "").verdict,
              Verdict::Ok);
    EXPECT_EQ(mibFinding(".1.3.6.1.4.1.53864.1.1.10\n", kUnknown).verdict, Verdict::Warn);
}

TEST(MibNames, MayBeThereWithoutBeingLoaded) {
    const Finding finding = mibFinding(kUnknown, kKnown);
    EXPECT_EQ(finding.verdict, Verdict::Warn);
    EXPECT_THAT(finding.todo, testing::HasSubstr("-m CORVANE-MIB"));
}

TEST(MibNames, MayLackTheModuleOrThoseThatItStandsOn) {
    const std::string path = "MIB search path: /a:/b\n";
    const Finding absent = mibFinding("", path + "Cannot find module (CORVANE-MIB): At line 0 in (none)\n" + kUnknown);
    EXPECT_EQ(absent.words, "net-snmp's tools do not find CORVANE-MIB in /a:/b");
    const Finding others = mibFinding("", path +
                                              "Cannot find module (SNMPv2-SMI): At line 6 in /a/CORVANE-MIB.txt\n"
                                              "Cannot find module (SNMPv2-TC): At line 8 in /a/CORVANE-MIB.txt\n"
                                              "Cannot find module (SNMPv2-SMI): At line 9 in /a/CORVANE-MIB.txt\n");
    EXPECT_EQ(others.words, "CORVANE-MIB stands on modules that are missing: SNMPv2-SMI, SNMPv2-TC");
    EXPECT_THAT(mibFinding("", std::string("Bad parse\n") + kUnknown).words, testing::HasSubstr("kxServerEid"));
    for (const char* said : {"", "MIB search path: ", "Cannot find module (", "Cannot find module (CORVANE-MIB)"}) {
        EXPECT_EQ(mibFinding(said, said).verdict, Verdict::Warn);
        EXPECT_NE(mibFinding(said, said).todo, "");
    }
}

TEST(MibNames, CannotBeToldWithoutTheTool) {
    EXPECT_THAT(mibFinding(std::nullopt, std::nullopt).words, testing::HasSubstr("there is no snmptranslate"));
}

}  // namespace
}  // namespace kx::ctl
