#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "agent/server/PeerIdentity.h"

namespace kx::agent {
namespace {

TEST(Peer, IsDescribedByWhatItCallsItselfAndElseByItsProcess) {
    PeerIdentity peer{::getpid(), 5, 6, {}, ""};
    EXPECT_EQ(peer.describe(), fmt::format("peer \"test_agent\" (pid {}, uid 5)", ::getpid()));
    peer.program = "tool\n1";
    EXPECT_EQ(peer.describe(), fmt::format("peer \"tool?1\" (pid {}, uid 5)", ::getpid()));
    peer = {0x7fffffff, 5, 6, {}, ""};
    EXPECT_EQ(peer.describe(), "peer \"unknown\" (pid 2147483647, uid 5)");
}

}  // namespace
}  // namespace kx::agent
