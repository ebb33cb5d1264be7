#include "ctl/doctor/Subprocess.h"

#include <gtest/gtest.h>

namespace kx::ctl {
namespace {

using std::chrono::milliseconds;

TEST(Subprocess, TellsWhatAProgramSaysOnBothOutputs) {
    EXPECT_EQ(outputOf({"sh", "-c", "echo out; echo err >&2; cat"}, milliseconds(10000)), "out\nerr\n");
}

TEST(Subprocess, TakesArgumentsAsTheyAre) {
    EXPECT_EQ(outputOf({"printf", "%s", "$(id); a b"}, milliseconds(10000)), "$(id); a b");
}

TEST(Subprocess, TellsThatThereIsNoSuchProgram) {
    EXPECT_EQ(outputOf({"kx-no-such-program"}, milliseconds(10000)), std::nullopt);
}

TEST(Subprocess, EndsAProgramThatDoesNot) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(outputOf({"sh", "-c", "echo begun; exec sleep 60"}, milliseconds(200)), "begun\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

}  // namespace
}  // namespace kx::ctl
