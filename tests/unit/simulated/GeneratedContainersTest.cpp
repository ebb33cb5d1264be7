// Containers made up for load tests.
#include "agent/backends/simulated/GeneratedContainers.h"

#include <set>

#include "Parsed.h"

namespace kx::agent::simulated {
namespace {

TEST(GeneratedContainers, AreTheSameEveryTime) {
    Environment expected;
    expected.eid = Eid::fromName(kMachineId, "simulated/generated/2001");
    expected.state = 2;
    expected.name = "web-2001";
    expected.veid = 2001;
    expected.hostname = "web-2001.example.net";
    expected.description = "Web front end, made up";
    expected.osTemplate = Template{"debian", "12"};
    expected.baseSample = Eid::fromName(kMachineId, "simulated/sample/web");
    expected.addresses = std::vector{Address{"10.0.0.1", "255.0.0.0"}};
    expected.templates = std::vector{Template{"nginx", "1.24"}};
    EXPECT_EQ(generateContainer(0, kMachineId), expected);
}

TEST(GeneratedContainers, AreDifferentOnAnotherMachine) {
    EXPECT_NE(generateContainer(0, "another").eid, generateContainer(0, kMachineId).eid);
}

TEST(GeneratedContainers, ShareNeitherNumberNorIdentifierNorAddress) {
    std::set<std::string> seen;
    for (std::size_t i = 0; i < 10'000; ++i) {
        const auto container = generateContainer(i, kMachineId);
        EXPECT_EQ(container.veid, static_cast<std::int32_t>(2001 + i));
        EXPECT_TRUE(seen.insert(container.eid.toString()).second);
        EXPECT_TRUE(seen.insert(container.addresses.value().at(0).address).second);
    }
}

TEST(GeneratedContainers, TheLastPossibleOneHasAProperAddress) {
    EXPECT_EQ(generateContainer(kMaxGenerated - 1, kMachineId).addresses,
              (std::vector{Address{"10.15.66.64", "255.0.0.0"}}));
}

TEST(GeneratedContainers, RunMostlyButNotAll) {
    std::map<std::int32_t, int> numberOfState;
    for (std::size_t i = 0; i < 1000; ++i) {
        ++numberOfState[generateContainer(i, kMachineId).state];
    }
    EXPECT_EQ(numberOfState[1], 100);
    EXPECT_GT(numberOfState[2], 800);
    EXPECT_GT(numberOfState[3], 5);
    EXPECT_EQ(numberOfState.size(), 3U);
}

}  // namespace
}  // namespace kx::agent::simulated
