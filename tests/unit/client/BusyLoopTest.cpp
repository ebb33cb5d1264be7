// What answers at once answers also while the event loop is busy with something that takes its time.
#include <functional>
#include <future>

#include "client/src/loop/Loop.h"
#include "tests/unit/client/CounterFixture.h"

namespace kx::test {
namespace {

class NoTimeout : public KXLTimeoutHandlerPrototype {
public:
    void handleTimeout() override {}
};

/// Keeps the loop's thread until it goes.
class BusyLoop {
public:
    explicit BusyLoop(const boost::intrusive_ptr<KXLEventLoopPrototype>& loop) {
        std::promise<void> begun;
        loop->loop()->post([&, until = end_.get_future().share()] {
            begun.set_value();
            until.wait();
        });
        begun.get_future().wait();
    }
    ~BusyLoop() { end_.set_value(); }
    BusyLoop(const BusyLoop&) = delete;
    BusyLoop& operator=(const BusyLoop&) = delete;

private:
    std::promise<void> end_;
};

class WhileTheLoopIsBusy : public Counters {
protected:
    WhileTheLoopIsBusy() {
        bringUp();
        loop->loop()->post([this] {
            // Before the connection can have come about: who subscribes later is not told that it is subscribed.
            connection_ = access()->openEventConnection(accessPoint->getEID(), "");
            EXPECT_EQ(connection_->subscribe(KXLEvent::subscriptionName, subscribed_), 0);
        });
        EXPECT_TRUE(eventually([this] { return journal.has("subscribed subscribed"); }));
        EXPECT_EQ(start(stopped_), 0);
        EXPECT_TRUE(eventually([this] { return journal.has("stopped started"); }));
    }
    ~WhileTheLoopIsBusy() override { loop->stop(); }

    boost::intrusive_ptr<KXLAccessPrototype> access() const { return accessPoint->getAccess(); }

    /// Does something on another thread while the loop is busy.
    /// @return whether it was done before the loop was free again
    bool answersAtOnce(const std::function<void()>& act) {
        std::future<void> done;
        const BusyLoop busy(loop);
        done = std::async(std::launch::async, act);
        return done.wait_for(kPatience) == std::future_status::ready;
    }

    ConnectionPtr connection_;
    EventHandlerPtr subscribed_{new EventHandler("subscribed", journal)};
    EventHandlerPtr other_{new EventHandler("other", journal)};
    MonitorPtr stopped_ = handlerNamed("stopped");
};

TEST_F(WhileTheLoopIsBusy, EventConnectionsAreOpened) {
    EXPECT_TRUE(answersAtOnce([this] { EXPECT_TRUE(access()->openEventConnection(accessPoint->getEID(), "")); }));
    EXPECT_TRUE(answersAtOnce([this] {
        EXPECT_TRUE(access()->openDedicatedConnection(accessPoint->getEID(), KXLEID::EID_INVALID, nullptr));
    }));
}

TEST_F(WhileTheLoopIsBusy, EventsAreSubscribedToAndNoMore) {
    EXPECT_TRUE(answersAtOnce([this] {
        EXPECT_EQ(connection_->subscribe(KXLEvent::subscriptionName, other_), 0);
        connection_->unsubscribe(KXLEvent::subscriptionName, subscribed_);
        connection_->close();
    }));
}

TEST_F(WhileTheLoopIsBusy, VocabulariesAndEnvironmentsAreReadFromMemory) {
    agent.change(kWeb);
    ASSERT_TRUE(settle());
    EXPECT_TRUE(answersAtOnce([this] {
        EXPECT_TRUE(accessPoint->getVocabulary(accessPoint->getEID()));
        EXPECT_TRUE(accessPoint->getVocabulary(accessPoint->getEID(), "KXABasicFunctionality"));
        EXPECT_EQ(accessPoint->getEnvCache()->getEnvList().size(), 1U);
        EXPECT_TRUE(accessPoint->getEnvCache()->getEnvCopy(makeEnv(kWeb)->getEID()));
    }));
}

TEST_F(WhileTheLoopIsBusy, TimeoutsAreRegistered) {
    EXPECT_TRUE(answersAtOnce([this] {
        EXPECT_EQ(access()->registerTimeout(boost::intrusive_ptr<KXLTimeoutHandlerPrototype>(new NoTimeout)), 0);
    }));
}

TEST_F(WhileTheLoopIsBusy, MonitorsAreStartedAndStopped) {
    EXPECT_TRUE(answersAtOnce([this] {
        EXPECT_EQ(start(first), 0);
        stopped_->stop();
    }));
}

}  // namespace
}  // namespace kx::test
