// The five tables, registered in this process and read by the link's monitor, as in the daemon.
#pragma once

#include "link/SNMPNodeLocal.h"
#include "mib/Registration.h"
#include "tests/support/LogCapture.h"
#include "tests/unit/mib/InProcessAgent.h"
#include "tests/unit/perf/PerfFixture.h"

namespace kx::test {

class PublishedTables : public PerfFixture {
protected:
    static void SetUpTestSuite() {
        registerOnce();
        // The link subscribes anew, in one subscription, to all that it was ever asked for.
        SNMPNodeLocal::instance()->getStats(kNet);
        SNMPNodeLocal::instance()->getStats(kQuota);
        EXPECT_TRUE(settle());
        agent().reset();
        agent().hangUp();
        subscription_ = agent().monitor();
    }

    /// Has the link's monitor know this and nothing else.
    static void publish(const std::vector<wire::CounterGroup>& groups) {
        agent().send(reportFrame(subscription_, {}));
        agent().send(reportFrame(subscription_, groups));
        ASSERT_TRUE(settle());
    }

    static InProcessAgent& snmp() { return InProcessAgent::instance(); }

    static inline std::uint64_t subscription_ = 0;

private:
    static void registerOnce() {
        snmp();
        const LogCapture unwanted;
        [[maybe_unused]] static const bool registered = (register_tables(), true);
    }
};

}  // namespace kx::test
