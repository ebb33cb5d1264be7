// Counters once there is no link any more, and so no access point. A link that was destroyed is never made again: this
// must stay the last test of the binary.
#include "link/SNMPNodeLocal.h"
#include "tables/VeNetworkCountersTableData.h"
#include "tables/VeQuotaCountersTableData.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/perf/PerfFixture.h"

namespace kx::test {
namespace {

using testing::IsEmpty;

using WithoutLink = PerfFixture;

TEST_F(WithoutLink, EveryReadIsEmptyAndNothingIsStarted) {
    read(kQuota);
    report({groupOf(kQuota, {"q1"}, {rowOf(kWeb, "", {9})})});
    ASSERT_EQ(read(kQuota).size(), 1U);
    agent().reset();
    SNMPNodeLocal::destroy();
    const LogCapture log;
    for (const std::string& name : {kQuota, kNet}) {
        EXPECT_EQ(read(name), Readings()) << "also what the cache still has";
    }
    EXPECT_TRUE(CountersSnapshot<VeQuotaCountersTableData>().begin() ==
                CountersSnapshot<VeQuotaCountersTableData>().end());
    EXPECT_THAT(counterNames(kQuota), IsEmpty());
    EXPECT_EQ(monitor.restart(nullptr), 0);
    EXPECT_THAT(agent().starts(), IsEmpty());
    EXPECT_THAT(agent().queries(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
}  // namespace kx::test
