#include "daemon/traps/TrapPace.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/Eventually.h"
#include "tests/unit/traps/FakeMaster.h"

namespace kx::test {
namespace {

using std::chrono::milliseconds;
using Room = MasterSession::Room;

/// A pace whose clock goes on by a millisecond with each pause.
class TrapPaces : public testing::Test {
protected:
    /// @return how long it waited
    milliseconds wait() {
        const auto started = now;
        pace.waitForRoom();
        return std::chrono::duration_cast<milliseconds>(now - started);
    }

    std::function<Room()> room = [] { return Room::Ample; };
    bool isLoopWaitedFor = false;
    TrapPace::Clock::time_point now{};
    TrapPace pace{{[this] { return room(); }, [this] { return isLoopWaitedFor; }, [this] { return now; },
                   [this] { now += milliseconds(1); }}};
};

TEST_F(TrapPaces, DoNotWaitWhereThereIsRoom) {
    EXPECT_EQ(wait(), milliseconds(0));
}

TEST_F(TrapPaces, WaitUntilThereIsRoom) {
    room = [this] { return now.time_since_epoch() < milliseconds(100) ? Room::Scarce : Room::Ample; };
    EXPECT_EQ(wait(), milliseconds(100));
}

TEST_F(TrapPaces, WaitOnceForAStallAndAgainAfterThereHasBeenRoom) {
    for (const Room stalled : {Room::Scarce, Room::None, Room::NoSession}) {
        room = [stalled] { return stalled; };
        EXPECT_GE(wait(), TrapPace::longestStall);
        EXPECT_EQ(wait(), milliseconds(0));
        room = [] { return Room::Ample; };
        EXPECT_EQ(wait(), milliseconds(0));
    }
}

TEST_F(TrapPaces, EndTheirWaitWhenAThreadWaitsForTheLoop) {
    room = [this] {
        isLoopWaitedFor = now.time_since_epoch() >= milliseconds(10);
        return Room::Scarce;
    };
    EXPECT_EQ(wait(), milliseconds(10));
    EXPECT_EQ(wait(), milliseconds(0));
    room = [this] {
        isLoopWaitedFor = false;
        return now.time_since_epoch() < milliseconds(20) ? Room::Scarce : Room::Ample;
    };
    EXPECT_EQ(wait(), milliseconds(10)) << "that was no stall";
}

// ---- the gate -------------------------------------------------------------------------------------------------------

TEST(TrapGates, AreOpenWhileThereIsRoomAndTheLibraryIsNotStuck) {
    MasterSession::watch();
    const boost::intrusive_ptr<TrapGate> gate(new TrapGate);
    EXPECT_FALSE(gate->isOpen()) << "there is no session";
    const FakeMaster master;
    EXPECT_TRUE(gate->isOpen());
    {
        const InLibrary library;
        EXPECT_TRUE(gate->isOpen());
        EXPECT_TRUE(eventually([&] { return !gate->isOpen(); })) << "somebody waits for the master in it";
    }
    EXPECT_TRUE(gate->isOpen());
    master.write(4096);
    EXPECT_FALSE(gate->isOpen());
}

}  // namespace
}  // namespace kx::test
