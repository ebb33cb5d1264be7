#include "mib/LibraryLock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

TEST(LibraryLock, IsHeldByTheThreadThatIsInTheLibraryAndByNoOther) {
    EXPECT_FALSE(LibraryLock::isHeldHere());
    {
        const InLibrary library;
        EXPECT_TRUE(LibraryLock::isHeldHere());
        bool heldThere = true;
        std::thread([&] { heldThere = LibraryLock::isHeldHere(); }).join();
        EXPECT_FALSE(heldThere);
    }
    EXPECT_FALSE(LibraryLock::isHeldHere());
}

TEST(LibraryLock, IsGivenUpOutsideAndTakenAgain) {
    const InLibrary library;
    {
        const OutOfLibrary outside;
        EXPECT_FALSE(LibraryLock::isHeldHere());
        std::thread([] { const InLibrary other; }).join();  // would not end if it were held
    }
    EXPECT_TRUE(LibraryLock::isHeldHere());
}

TEST(LibraryLock, OfACallbackThatWasNotCalledByTheLibraryStaysAsItIs) {
    {
        const OutOfLibrary outside;
        EXPECT_FALSE(LibraryLock::isHeldHere());
    }
    EXPECT_FALSE(LibraryLock::isHeldHere());
}

TEST(LibraryLock, LetsInOneThreadAtATime) {
    int unguarded = 0;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int round = 0; round < 2000; ++round) {
                const InLibrary library;
                ++unguarded;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(unguarded, 8000);
}

TEST(LibraryLock, GivesAWaitingThreadItsTurnBeforeTheOneThatHasJustHadIt) {
    std::atomic<bool> ending{false};
    std::thread busy([&] {
        while (!ending) {
            const InLibrary library;
        }
    });
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < 100; ++round) {
        const InLibrary library;
    }
    const auto took = std::chrono::steady_clock::now() - start;
    ending = true;
    busy.join();
    EXPECT_LT(took, std::chrono::seconds(10));
}

}  // namespace
