#include "agent/core/BackendChoice.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent {
namespace {

class BackendChoice : public testing::Test {
protected:
    BackendChoice() {
        config_.lxcPath = folder_ / "lxc";
        config_.inventory = folder_ / "inventory.toml";
    }

    void makeContainer() {
        std::filesystem::create_directories(folder_ / "lxc/web");
        std::ofstream(folder_ / "lxc/web/config") << "lxc.uts.name = web\n";
    }
    void makeInventory() { std::ofstream(config_.inventory) << "[host]\n"; }

    kx::test::TemporaryFolder folder_;
    Config config_;
};

TEST_F(BackendChoice, RealContainersComeFirst) {
    makeInventory();
    makeContainer();
    EXPECT_EQ(chooseBackend(config_), BackendKind::Lxc);
}

TEST_F(BackendChoice, WithoutThemADescriptionIsUsed) {
    makeInventory();
    EXPECT_EQ(chooseBackend(config_), BackendKind::Simulated);
}

TEST_F(BackendChoice, WithoutAnythingTheFirstContainerIsWaitedFor) {
    EXPECT_EQ(chooseBackend(config_), BackendKind::Lxc);
}

TEST_F(BackendChoice, WhatTheConfigurationSaysIsDone) {
    makeContainer();
    config_.backend = BackendKind::Simulated;
    EXPECT_EQ(chooseBackend(config_), BackendKind::Simulated);
    config_.backend = BackendKind::Lxc;
    EXPECT_EQ(chooseBackend(config_), BackendKind::Lxc);
}

TEST_F(BackendChoice, OnlyItsOwnSettingsMakeABackendAnotherOne) {
    Config other = config_;
    other.inventory = "/elsewhere";
    EXPECT_TRUE(differInBackend(BackendKind::Simulated, config_, other));
    EXPECT_FALSE(differInBackend(BackendKind::Lxc, config_, other));
    other = config_;
    other.lxcPath = "/elsewhere";
    EXPECT_FALSE(differInBackend(BackendKind::Simulated, config_, other));
    EXPECT_TRUE(differInBackend(BackendKind::Lxc, config_, other));
    other = config_;
    other.socket = "/elsewhere";
    EXPECT_FALSE(differInBackend(BackendKind::Lxc, config_, other));
}

}  // namespace
}  // namespace kx::agent
