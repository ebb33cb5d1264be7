#include "client/src/loop/Loop.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <csignal>
#include <future>

#include <kxl/KXLEventLoopPrototype.h>

#include <boost/intrusive_ptr.hpp>

namespace kx::client {
namespace {

TEST(Loop, RunsTasksOnAThreadOfItsOwn) {
    const auto loop = std::make_shared<Loop>();
    loop->start();
    std::promise<std::thread::id> ran;
    ASSERT_TRUE(loop->post([&] { ran.set_value(std::this_thread::get_id()); }));
    EXPECT_NE(ran.get_future().get(), std::this_thread::get_id());
    EXPECT_FALSE(loop->onLoopThread());
}

TEST(Loop, BlocksEverySignalOnItsThreadAndNoneOnTheOthers) {
    const auto loop = std::make_shared<Loop>();
    loop->start();
    std::promise<sigset_t> mask;
    loop->post([&] {
        sigset_t current;
        pthread_sigmask(SIG_SETMASK, nullptr, &current);
        mask.set_value(current);
    });
    const sigset_t onLoop = mask.get_future().get();
    sigset_t here;
    pthread_sigmask(SIG_SETMASK, nullptr, &here);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGUSR1, SIGALRM}) {
        EXPECT_EQ(sigismember(&onLoop, signal), 1) << signal;
        EXPECT_EQ(sigismember(&here, signal), 0) << signal;
    }
}

TEST(Loop, RunsWhatWasPostedBeforeItEndsAndTakesNothingAfterwards) {
    const auto loop = std::make_shared<Loop>();
    loop->start();
    int ran = 0;
    for (int i = 0; i < 100; ++i) {
        loop->post([&ran] { ++ran; });
    }
    loop->stop();
    EXPECT_EQ(ran, 100);
    EXPECT_FALSE(loop->post([&ran] { ++ran; }));
    loop->stop();
    EXPECT_EQ(ran, 100);
}

TEST(Loop, TakesNothingBeforeItRuns) {
    const auto loop = std::make_shared<Loop>();
    EXPECT_FALSE(loop->post([] {}));
    loop->stop();
    loop->start();
    EXPECT_FALSE(loop->post([] {}));
}

struct Client : LoopClient {
    void loopStopping() override { ++told; }
    int told = 0;
};

TEST(Loop, TellsItsClientsOnceThatItEnds) {
    const auto loop = std::make_shared<Loop>();
    const auto client = std::make_shared<Client>();
    loop->attach(client);
    loop->attach(std::make_shared<Client>());  // gone by then
    loop->start();
    loop->stop();
    loop->stop();
    EXPECT_EQ(client->told, 1);
}

TEST(EventLoop, StoppedOnItsOwnThreadItEndsWithoutWaitingForItself) {
    boost::intrusive_ptr<KXLEventLoopPrototype> loop(new KXLEventLoopPrototype);
    loop->start();
    std::promise<void> stopped;
    loop->loop()->post([&] {
        loop->stop();
        stopped.set_value();
    });
    stopped.get_future().get();
    loop->stop();
    EXPECT_FALSE(loop->loop()->post([] {}));
}

TEST(EventLoop, MayBeLetGoOnItsOwnThread) {
    boost::intrusive_ptr<KXLEventLoopPrototype> loop(new KXLEventLoopPrototype);
    loop->start();
    std::promise<void> gone;
    auto future = gone.get_future();
    const auto raw = loop->loop();
    std::promise<void> go;
    raw->post([loop, &go, &gone]() mutable {
        go.get_future().get();
        loop.reset();
        gone.set_value();
    });
    loop.reset();
    go.set_value();
    future.get();
    raw->join();
}

}  // namespace
}  // namespace kx::client
