#include "agent/backends/lxc/LxcState.h"

#include <gmock/gmock.h>

namespace kx::agent::lxc {
namespace {

TEST(LxcStateTest, everyStateOfLxcHasItsPlace) {
    EXPECT_EQ(statusOf("STOPPED"), (Status{State::Stopped, Transition::None}));
    EXPECT_EQ(statusOf("STARTING"), (Status{State::Stopped, Transition::Starting}));
    EXPECT_EQ(statusOf("RUNNING"), (Status{State::Running, Transition::None}));
    EXPECT_EQ(statusOf("STOPPING"), (Status{State::Running, Transition::Stopping}));
    EXPECT_EQ(statusOf("ABORTING"), (Status{State::Stopped, Transition::Aborting}));
    EXPECT_EQ(statusOf("FREEZING"), (Status{State::Running, Transition::Freezing}));
    EXPECT_EQ(statusOf("FROZEN"), (Status{State::Frozen, Transition::None}));
    EXPECT_EQ(statusOf("THAWED"), (Status{State::Frozen, Transition::Thawing}));
}

TEST(LxcStateTest, anythingElseIsUnknown) {
    for (const char* state : {"", "running", "NEW STATE", "RUNNINGX"}) {
        EXPECT_EQ(statusOf(state), Status{}) << state;
    }
}

TEST(LxcStateTest, aContainerIsAliveWhileItCanBeFrozen) {
    for (const char* state : {"RUNNING", "FREEZING", "FROZEN", "THAWED"}) {
        EXPECT_TRUE(isAlive(state)) << state;
    }
    for (const char* state : {"STOPPED", "STARTING", "STOPPING", "ABORTING", ""}) {
        EXPECT_FALSE(isAlive(state)) << state;
    }
}

TEST(LxcStateTest, readsTheFreezerOfCgroupV1) {
    EXPECT_EQ(freezerOfV1("THAWED\n"), Freezer::Thawed);
    EXPECT_EQ(freezerOfV1("FREEZING\n"), Freezer::Freezing);
    EXPECT_EQ(freezerOfV1("FROZEN\n"), Freezer::Frozen);
    EXPECT_EQ(freezerOfV1(""), Freezer::Unknown);
}

TEST(LxcStateTest, readsTheFreezerOfCgroupV2) {
    EXPECT_EQ(freezerOfV2("populated 1\nfrozen 0\n", "0\n"), Freezer::Thawed);
    EXPECT_EQ(freezerOfV2("populated 1\nfrozen 0\n", "1\n"), Freezer::Freezing);
    EXPECT_EQ(freezerOfV2("populated 1\nfrozen 1\n", "1\n"), Freezer::Frozen);
    EXPECT_EQ(freezerOfV2("populated 1\nfrozen 1\n", "0\n"), Freezer::Frozen) << "an ancestor is frozen";
    EXPECT_EQ(freezerOfV2("", ""), Freezer::Unknown);
    EXPECT_EQ(freezerOfV2("populated 1\n", "0\n"), Freezer::Unknown);
}

TEST(LxcStateTest, theFreezersWordReplacesThatOfLxc) {
    const Status running{State::Running, Transition::None};
    EXPECT_EQ(statusOf(Freezer::Frozen, running), (Status{State::Frozen, Transition::None}));
    EXPECT_EQ(statusOf(Freezer::Freezing, running), (Status{State::Running, Transition::Freezing}));
    EXPECT_EQ(statusOf(Freezer::Thawed, statusOf("FROZEN")), running);
    EXPECT_EQ(statusOf(Freezer::Unknown, statusOf("FROZEN")), statusOf("FROZEN"));
}

}  // namespace
}  // namespace kx::agent::lxc
