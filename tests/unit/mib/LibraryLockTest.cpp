#include "mib/LibraryLock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
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

TEST(LibraryLock, IsNotWaitedForLongerThanAsked) {
    LibraryLock& lock = LibraryLock::instance();
    const InLibrary library;
    bool acquired = true;
    std::thread([&] { acquired = lock.lockWithin(std::chrono::milliseconds(1)); }).join();
    EXPECT_FALSE(acquired);
}

TEST(LibraryLock, GoesOnAfterThoseThatDidNotWaitForIt) {
    LibraryLock& lock = LibraryLock::instance();
    for (int round = 0; round < 2; ++round) {
        {
            const InLibrary library;
            std::thread([&] {
                EXPECT_FALSE(lock.lockWithin(std::chrono::milliseconds(1)));
                EXPECT_FALSE(lock.lockWithin(std::chrono::milliseconds(1)));
            }).join();
        }
        ASSERT_TRUE(lock.lockWithin(std::chrono::seconds(10)));
        EXPECT_TRUE(LibraryLock::isHeldHere());
        lock.unlock();
    }
}

TEST(LibraryLock, KnowsWhetherItIsHeldForLong) {
    LibraryLock& lock = LibraryLock::instance();
    EXPECT_FALSE(lock.isHeldFor(std::chrono::milliseconds(0)));
    const InLibrary library;
    EXPECT_TRUE(lock.isHeldFor(std::chrono::milliseconds(-1)));
    EXPECT_FALSE(lock.isHeldFor(std::chrono::hours(1)));
    const OutOfLibrary outside;
    EXPECT_FALSE(lock.isHeldFor(std::chrono::milliseconds(-1)));
}

/// @return whether a thread of this process waits for something (proc(5): state S)
bool sleeps(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string stat;
    std::getline(file, stat);
    const auto state = stat.rfind(") ");
    return state != std::string::npos && stat[state + 2] == 'S';
}

/// Takes turns as fast as it can.
class BusyThread {
public:
    ~BusyThread() {
        ending_ = true;
        thread_.join();
    }

    /// To be asked by whoever holds the lock.
    int turns() const { return turns_; }

private:
    int turns_ = 0;  ///< guarded by the lock
    std::atomic<bool> ending_{false};
    std::thread thread_{[this] {
        while (!ending_) {
            const InLibrary library;
            ++turns_;
        }
    }};
};

/// Waits for a turn beside a busy thread.
/// @return how many turns that had before
int turnsOfABusyThreadBeforeOurs(const BusyThread& busy) {
    std::atomic<pid_t> waiting{0};
    int before = 0;
    int after = 0;
    std::thread waiter;
    {
        const InLibrary library;
        before = busy.turns();
        waiter = std::thread([&] {
            waiting = ::gettid();
            const InLibrary turn;
            after = busy.turns();
        });
        // From then on it is its turn next, or the busy one's and then its.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while ((waiting == 0 || !sleeps(waiting)) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
    }
    waiter.join();
    return after - before;
}

TEST(LibraryLock, GivesAWaitingThreadItsTurnBeforeTheOneThatHasJustHadIt) {
    const BusyThread busy;
    for (int round = 0; round < 50; ++round) {
        EXPECT_LE(turnsOfABusyThreadBeforeOurs(busy), 2);
    }
}

}  // namespace
