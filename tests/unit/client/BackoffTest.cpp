#include <gtest/gtest.h>

#include "client/src/session/ReconnectBackoff.h"

namespace kx::client {
namespace {

using std::chrono::milliseconds;

void expectStep(milliseconds pause, int stepMs) {
    EXPECT_LE(pause, milliseconds(stepMs));
    EXPECT_GE(pause, milliseconds(stepMs * (100 - ReconnectBackoff::jitterPercent) / 100));
}

TEST(ReconnectBackoff, DoublesFromTheFirstToTheLongestPause) {
    ReconnectBackoff backoff(milliseconds(100), milliseconds(5000), 1);
    for (const int stepMs : {100, 200, 400, 800, 1600, 3200, 5000, 5000, 5000}) {
        expectStep(backoff.next(), stepMs);
    }
}

TEST(ReconnectBackoff, StartsOverAfterACompletedHandshake) {
    ReconnectBackoff backoff(milliseconds(100), milliseconds(5000), 1);
    backoff.next();
    backoff.next();
    backoff.reset();
    expectStep(backoff.next(), 100);
    expectStep(backoff.next(), 200);
}

TEST(ReconnectBackoff, DiffersBetweenClientsButNotBetweenRuns) {
    const auto pauses = [](unsigned seed) {
        ReconnectBackoff backoff(milliseconds(100), milliseconds(5000), seed);
        std::vector<milliseconds> all;
        for (int i = 0; i < 9; ++i) {
            all.push_back(backoff.next());
        }
        return all;
    };
    EXPECT_EQ(pauses(7), pauses(7));
    EXPECT_NE(pauses(7), pauses(8));
}

}  // namespace
}  // namespace kx::client
