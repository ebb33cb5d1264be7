#include "agent/base/Worker.h"

#include <gmock/gmock.h>

#include <csignal>
#include <future>
#include <stdexcept>

#include "agent/backends/lxc/OrderThread.h"
#include "tests/support/Eventually.h"

namespace kx::agent {
namespace {

using ::testing::ExitedWithCode;

TEST(WorkerTest, BodyThatThrowsEndsTheProcessAndIsLogged) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            Worker worker("sorter");
            worker.start([] { throw std::runtime_error("no pigeonhole"); });
            worker.join();
        },
        ExitedWithCode(1), "thread sorter failed: no pigeonhole; the agent ends");
    EXPECT_EXIT(
        {
            Worker worker("sorter");
            worker.start([] { throw 7; });
            worker.join();
        },
        ExitedWithCode(1), "thread sorter failed: unknown exception");
}

TEST(WorkerTest, TaskThatThrowsEndsTheProcessInsteadOfBeingRetried) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            lxc::OrderThread thread("sorter");
            thread.start([] { std::this_thread::sleep_for(std::chrono::milliseconds(1)); });
            thread.post([] { throw std::runtime_error("poison"); });
            std::this_thread::sleep_for(test::kPatience);
        },
        ExitedWithCode(1), "thread sorter failed: poison");
}

TEST(WorkerTest, SignalsAreBlockedOnTheThread) {
    std::promise<bool> blocked;
    Worker worker("sorter");
    worker.start([&] {
        sigset_t mask;
        ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        blocked.set_value(::sigismember(&mask, SIGTERM) == 1 && ::sigismember(&mask, SIGHUP) == 1);
    });
    EXPECT_TRUE(blocked.get_future().get());
}

TEST(WorkerTest, TimeAtWorkCountsFromTheLastPause) {
    std::promise<void> pause;
    std::promise<void> end;
    Worker worker("sorter");
    worker.start([&] {
        pause.get_future().wait();
        const Worker::Pause paused;
        end.get_future().wait();
    });
    using namespace std::chrono_literals;
    const auto isBusy = [](std::chrono::milliseconds time) {
        const auto busy = Worker::busiest();
        return busy && busy->name == "sorter" && busy->time >= time;
    };
    EXPECT_TRUE(test::eventually([&] { return isBusy(5ms); }));
    pause.set_value();
    EXPECT_TRUE(test::eventually([&] { return !isBusy(0ms); }));
    end.set_value();
}

}  // namespace
}  // namespace kx::agent
