#include "agent/base/Deadline.h"

#include <gtest/gtest.h>

#include <thread>

namespace kx::agent {
namespace {

using namespace std::chrono_literals;

TEST(DeadlineTest, EndsTheProcessAndLogsWhatWasUnderWay) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const Deadline deadline(20ms, "tidying up", 3);
            std::this_thread::sleep_for(20s);
        },
        ::testing::ExitedWithCode(3), "tidying up takes longer than 20 ms: the agent ends");
}

TEST(DeadlineTest, NothingHappensToWhatIsDoneInTime) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            { const Deadline deadline(1h, "tidying up", 3); }
            ::_exit(0);
        },
        ::testing::ExitedWithCode(0), "^$");
}

}  // namespace
}  // namespace kx::agent
