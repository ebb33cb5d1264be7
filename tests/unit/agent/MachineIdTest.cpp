#include "agent/core/MachineId.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent {
namespace {

using test::TemporaryFolder;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::ThrowsMessage;

constexpr const char* kSystemId = "0123456789abcdef0123456789abcdef";

TEST(MachineId, theSystemsIdIsTakenAndNothingIsWritten) {
    const TemporaryFolder folder;
    const std::string system = folder.write("machine-id", std::string(kSystemId) + "\n");
    EXPECT_EQ(machineId(system, folder / "state"), kSystemId);
    EXPECT_FALSE(std::filesystem::exists(folder / "state"));
}

TEST(MachineId, whereTheSystemHasNoneOneIsMadeAndKept) {
    const TemporaryFolder folder;
    const std::string made = machineId(folder / "none", folder / "state/deep");
    EXPECT_THAT(made, MatchesRegex("[0-9a-f]+"));
    EXPECT_EQ(made.size(), 32U);
    EXPECT_EQ(machineId(folder / "none", folder / "state/deep"), made);
}

TEST(MachineId, twoMachinesMakeDifferentOnes) {
    const TemporaryFolder folder;
    EXPECT_NE(machineId(folder / "none", folder / "one"), machineId(folder / "none", folder / "two"));
}

TEST(MachineId, anEmptyOrMalformedSystemFileCountsAsNone) {
    const TemporaryFolder folder;
    const std::string made = machineId(folder / "none", folder / "state");
    for (const char* content : {"", "\n", "uninitialized\n", "0123456789abcdef", "00000000000000000000000000000000\n",
                                "0123456789ABCDEF0123456789ABCDEF\n"}) {
        EXPECT_EQ(machineId(folder.write("machine-id", content), folder / "state"), made) << content;
    }
}

TEST(MachineId, aDamagedKeptOneIsAnErrorAndIsNotReplaced) {
    const TemporaryFolder folder;
    folder.write("machine-id", "half");
    EXPECT_THAT([&] { machineId(folder / "none", folder.path()); },
                ThrowsMessage<std::runtime_error>(HasSubstr(folder / "machine-id")));
    EXPECT_EQ(folder.read("machine-id"), "half");
}

TEST(MachineId, lookingForItWritesNothing) {
    const TemporaryFolder folder;
    EXPECT_FALSE(knownMachineId(folder / "none", folder / "state"));
    EXPECT_FALSE(std::filesystem::exists(folder / "state"));
    const std::string made = machineId(folder / "none", folder / "state");
    EXPECT_EQ(knownMachineId(folder / "none", folder / "state"), made);
}

TEST(MachineId, withoutAPlaceToKeepItThereIsNone) {
    const TemporaryFolder folder;
    folder.write("state", "a file, no folder");
    EXPECT_THROW(machineId(folder / "none", folder / "state"), std::runtime_error);
}

}  // namespace
}  // namespace kx::agent
