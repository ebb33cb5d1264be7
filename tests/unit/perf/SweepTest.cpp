// Which containers a report keeps, and which it takes out of the cache.
#include "tests/unit/perf/MonitorAccess.h"
#include "tests/unit/perf/PerfFixture.h"

namespace kx::test {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

const Readings kWebOnly = {{101, {{"1", {{"bytes_in", 5}}}}}};

KXLEID eidOf(const wire::Environment& environment) {
    KXLGUIDBase::Bytes bytes{};
    std::copy(environment.eid().begin(), environment.eid().end(), bytes.begin());
    return KXLEID(bytes);
}

/// A monitor that knows both containers in two classes.
class Sweep : public PerfFixture {
protected:
    Sweep() {
        read(kNet);
        read(kQuota);
        report({bytesOf({rowOf(kWeb, "1", {5}), rowOf(kStore, "1", {6})}),
                groupOf(kQuota, {"q1"}, {rowOf(kWeb, "", {8}), rowOf(kStore, "", {9})})});
        EXPECT_THAT(read(kNet), SizeIs(2));
        EXPECT_THAT(read(kQuota), SizeIs(2));
    }

    /// Of each class the containers that are known.
    std::vector<int> known(const std::string& className) {
        std::vector<int> veids;
        for (const auto& [veid, instances] : monitor.getStats(className)) {
            veids.push_back(veid);
        }
        return veids;
    }
    void expectKnown(const std::vector<int>& net, const std::vector<int>& quota) {
        EXPECT_EQ(known(kNet), net);
        EXPECT_EQ(known(kQuota), quota);
    }
};

TEST_F(Sweep, KeepsAContainerThatIsReportedInOneClassInAll) {
    report({bytesOf({rowOf(kWeb, "1", {1}), rowOf(kStore, "1", {1})})});
    expectKnown({101, 102}, {101, 102});
}

TEST_F(Sweep, TakesAContainerThatIsMissingOutOfEveryClass) {
    report({bytesOf({rowOf(kWeb, "1", {1})})});
    expectKnown({101}, {101});
}

TEST_F(Sweep, TakesAContainerThatIsMissingOutOfClassesThatTheReportIsNotAbout) {
    report({bytesOf({rowOf(kStore, "1", {1})}, "another class")});
    expectKnown({102}, {102});
    EXPECT_EQ(known("another class"), std::vector<int>{102});
}

TEST_F(Sweep, OfAnEmptyReportTakesAllOut) {
    report({});
    agent().reset();
    expectKnown({}, {});
    EXPECT_THAT(agent().queries(), SizeIs(2)) << "and the next reads ask for themselves";
    EXPECT_THAT(agent().starts(), IsEmpty());
}

TEST_F(Sweep, LetsAContainerComeBackWithoutItsPast) {
    report({bytesOf({rowOf(kStore, "1", {1})})});
    report({bytesOf({rowOf(kWeb, "1", {5}), rowOf(kStore, "1", {1})})});
    EXPECT_EQ(read().at(101), kWebOnly.at(101));
    EXPECT_EQ(known(kQuota), std::vector<int>{102});
}

TEST_F(Sweep, TakesAContainerOutThatReportsNoClassAtAll) {
    storeMonitorData(monitor, {{eidOf(kWeb), {}}, {eidOf(kStore), {{kNet, {{"1", {}}}}}}});
    expectKnown({102}, {102});
}

TEST_F(Sweep, KeepsAContainerThatReportsAClassWithoutInstancesAndEndsThese) {
    storeMonitorData(monitor, {{eidOf(kWeb), {{kNet, {}}}}, {eidOf(kStore), {{kNet, {{"1", {}}}}}}});
    expectKnown({101, 102}, {101, 102});
    EXPECT_THAT(monitor.getStats(kNet).at(101), IsEmpty());
    EXPECT_THAT(monitor.getStats(kNet).at(102), SizeIs(1));
}

TEST_F(Sweep, KeepsAContainerThatReportsAnInstanceWithoutCounters) {
    report({groupOf(kNet, {}, {rowOf(kWeb, "1", {}), rowOf(kWeb, "new", {})})});
    expectKnown({101}, {101});
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"bytes_in", 5}}}, {"new", {}}}}}));
}

TEST_F(Sweep, IsServedFromTheCacheAlsoWhereThatHoldsContainersWithoutCountersOnly) {
    storeMonitorData(monitor, {{eidOf(kWeb), {{kNet, {}}}}});
    agent().reset();
    EXPECT_EQ(read(), (Readings{{101, {}}}));
    EXPECT_THAT(agent().queries(), IsEmpty());
}

// ---- containers without a number ------------------------------------------------------------------------------------

TEST_F(Sweep, PassesOverContainersWithoutAValidNumber) {
    wire::Environment unknown = wireEnv(99);
    report({bytesOf({rowOf(kNoNumber, "1", {1}), rowOf(unknown, "1", {1}), rowOf(kZero, "1", {1}),
                     rowOf(kMinus, "1", {1}), rowOf(kWeb, "1", {1})})});
    expectKnown({101}, {101});
}

TEST_F(Sweep, TakesTheLargestAndTheSmallestNumbersThereAre) {
    agent().change(renumbered(kWeb, 1));
    agent().change(renumbered(kStore, std::numeric_limits<std::int32_t>::max()));
    report({bytesOf({rowOf(kStore, "1", {1}), rowOf(kWeb, "1", {1})})});
    expectKnown({1, std::numeric_limits<std::int32_t>::max()}, {});
}

TEST_F(Sweep, TakesAContainerOutThatHasLostItsNumber) {
    agent().change(renumbered(kWeb, 0));
    report({bytesOf({rowOf(kWeb, "1", {1}), rowOf(kStore, "1", {1})})});
    expectKnown({102}, {102});
}

TEST_F(Sweep, TakesTheOldNumberOfARenumberedContainerOut) {
    agent().change(renumbered(kWeb, 7));
    report({bytesOf({rowOf(kWeb, "1", {1}), rowOf(kStore, "1", {1})})});
    expectKnown({7, 102}, {102});
}

TEST_F(Sweep, LeavesTheLastOfTwoContainersOfOneNumberWithItsInstances) {
    agent().change(renumbered(kStore, 101));
    report({bytesOf({rowOf(kWeb, "1", {1}), rowOf(kStore, "1", {2}), rowOf(kStore, "2", {3})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"bytes_in", 8}}}, {"2", {{"bytes_in", 3}}}}}}));
}

}  // namespace
}  // namespace kx::test
