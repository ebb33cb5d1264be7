// Timeouts on the event loop.
#include <atomic>
#include <thread>

#include <kxl/KXLClock.h>

#include "tests/unit/client/LinkFixture.h"

namespace kx::test {
namespace {

std::atomic<std::time_t> testTime{1000};
std::time_t readTestTime() {
    return testTime;
}

class TestClock {
public:
    TestClock() {
        testTime = 1000;
        setKXLClock(&readTestTime);
    }
    ~TestClock() { setKXLClock(nullptr); }
    TestClock(const TestClock&) = delete;
    TestClock& operator=(const TestClock&) = delete;
};

class CountingTimeout : public KXLTimeoutHandlerPrototype {
public:
    void handleTimeout() override {
        thread = std::this_thread::get_id();
        ++fired;
    }
    std::atomic<int> fired{0};
    std::atomic<std::thread::id> thread;
};
using TimeoutPtr = boost::intrusive_ptr<CountingTimeout>;

class Timeouts : public LinkFixture {
protected:
    ~Timeouts() override { loop->stop(); }

    int add(const TimeoutPtr& timeout) { return accessPoint->getAccess()->registerTimeout(timeout); }
    TimeoutPtr after(long seconds) {
        TimeoutPtr timeout(new CountingTimeout);
        timeout->set(seconds, 0);
        return timeout;
    }
};

TEST(TimeoutHandler, IsSetToSecondsFromNow) {
    const TestClock clock;
    const TimeoutPtr timeout(new CountingTimeout);
    EXPECT_TRUE(timeout->isActive());
    EXPECT_EQ(timeout->getExpiry(), 0);
    timeout->set(30, 0);
    EXPECT_EQ(timeout->getExpiry(), 1030);
    EXPECT_EQ(timeout->getPeriod(), 30);
    timeout->set(-5, 0);
    EXPECT_EQ(timeout->getExpiry(), 995);
    EXPECT_EQ(timeout->getPeriod(), -5);
}

TEST(TimeoutHandler, TakesMicrosecondsForTheExpiryItself) {
    const TestClock clock;
    const TimeoutPtr timeout(new CountingTimeout);
    timeout->set(30, 7);
    EXPECT_EQ(timeout->getExpiry(), 7);
    EXPECT_EQ(timeout->getPeriod(), 30);
}

/// An explicit instantiation may name private members: it hands one on to a function that finds it by its tag.
template <typename Tag, typename Tag::Member member>
struct Expose {
    friend typename Tag::Member memberOf(Tag) { return member; }
};
struct Second {
    using Member = long KXLTimeoutHandlerPrototype::*;
    friend Member memberOf(Second);
};
template struct Expose<Second, &KXLTimeoutHandlerPrototype::second>;

TEST(TimeoutHandler, RemembersMicrosecondsUntilItIsSetWithOthers) {
    const TestClock clock;
    const TimeoutPtr timeout(new CountingTimeout);
    const auto second = [&] { return (*timeout).*memberOf(Second()); };
    timeout->set(30, 0);
    EXPECT_EQ(second(), 0) << "seconds are not remembered there";
    timeout->set(30, 7);
    EXPECT_EQ(second(), 7);
    timeout->set(40, 0);
    EXPECT_EQ(second(), 7);
    EXPECT_EQ(timeout->getExpiry(), 1040);
}

TEST_F(Timeouts, FireOnceOnTheLoopsThreadAndAreLetGoOf) {
    const TimeoutPtr timeout = after(0);
    ASSERT_EQ(add(timeout), 0);
    EXPECT_TRUE(eventually([&] { return timeout->fired == 1 && timeout->referenceCount() == 1; }));
    EXPECT_NE(timeout->thread.load(), std::this_thread::get_id());
}

/// The clock is held still from before the loop starts until it has stopped: a second that turned between setting a
/// timeout and beginning it would be one less to wait.
class TimeoutsOnAHeldClock : private TestClock, public Timeouts {};

TEST_F(TimeoutsOnAHeldClock, FireAfterTheirTimeAndNotBefore) {
    const TimeoutPtr timeout = after(1);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(add(timeout), 0);
    ASSERT_TRUE(eventually([&] { return timeout->fired == 1; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
}

TEST_F(Timeouts, WhoseTimeHasPassedFireAtOnce) {
    const TimeoutPtr timeout = after(-100);
    ASSERT_EQ(add(timeout), 0);
    EXPECT_TRUE(eventually([&] { return timeout->fired == 1; }));
}

TEST_F(Timeouts, ThatAreNotActiveDoNotFire) {
    const TimeoutPtr timeout = after(0);
    timeout->setActive(false);
    ASSERT_EQ(add(timeout), 0);
    EXPECT_TRUE(eventually([&] { return timeout->referenceCount() == 1; })) << "its turn has come and gone";
    EXPECT_EQ(timeout->fired, 0);
}

TEST_F(Timeouts, AreDroppedWithoutACallWhenTheLoopStops) {
    const TimeoutPtr timeout = after(3600);
    ASSERT_EQ(add(timeout), 0);
    loop->stop();
    EXPECT_EQ(timeout->fired, 0);
    EXPECT_EQ(timeout->referenceCount(), 1);
    EXPECT_NE(add(timeout), 0) << "nothing is taken any more";
}

}  // namespace
}  // namespace kx::test
