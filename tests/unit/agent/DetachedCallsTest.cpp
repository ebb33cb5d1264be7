#include "agent/base/DetachedCalls.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <vector>

#include "tests/support/Eventually.h"

namespace kx::agent {
namespace {

using namespace std::chrono_literals;

class DetachedCallsTest : public ::testing::Test {
protected:
    /// Lets the calls that hang return, so that their threads end.
    ~DetachedCallsTest() override { release_.set_value(); }

    bool startHanging(const std::string& key) {
        return calls_.start(key, [released = released_] {
            released.wait();
            return [] {};
        });
    }

    bool startQuick(const std::string& key) {
        return calls_.start(key, [this, key] { return [this, key] { finished_.push_back(key); }; });
    }

    bool finishes(const std::string& key) {
        return test::eventually([&] {
            calls_.finish();
            return std::find(finished_.begin(), finished_.end(), key) != finished_.end();
        });
    }

    std::vector<std::string> finished_;
    std::promise<void> release_;
    std::shared_future<void> released_ = release_.get_future().share();
    DetachedCalls calls_{"readers"};
};

TEST_F(DetachedCallsTest, WhatACallLeavesIsRunByItsOwner) {
    ASSERT_TRUE(startQuick("web"));
    EXPECT_TRUE(finishes("web"));
    ASSERT_TRUE(startQuick("web"));
}

TEST_F(DetachedCallsTest, ManyThatHangHoldUpNoOther) {
    for (int number = 0; number < 50; ++number) {
        ASSERT_TRUE(startHanging(std::to_string(number)));
    }
    ASSERT_TRUE(startQuick("web"));
    EXPECT_TRUE(finishes("web"));
}

TEST_F(DetachedCallsTest, AKeyHasOneCallAtATime) {
    ASSERT_TRUE(startHanging("web"));
    EXPECT_FALSE(startQuick("web"));
    EXPECT_TRUE(startQuick("db"));
    EXPECT_TRUE(test::eventually([&] { return calls_.timeOf("web") > 1ms; }));
    EXPECT_EQ(calls_.timeOf("other"), 0ms);
}

TEST_F(DetachedCallsTest, FinishingAllWaitsForThoseThatReturnAndOnceForThoseThatHang) {
    std::atomic<bool> done = false;
    calls_.start("slow", [&done] {
        std::this_thread::sleep_for(30ms);
        done = true;
        return [] {};
    });
    calls_.finishAll(20s);
    EXPECT_TRUE(done);
    ASSERT_TRUE(startHanging("web"));
    calls_.finishAll(1h);
    EXPECT_GE(calls_.timeOf("web"), DetachedCalls::kPatience);
    ASSERT_TRUE(startQuick("db"));
    calls_.finishAll(1h);
    EXPECT_THAT(finished_, ::testing::ElementsAre("db"));
}

TEST_F(DetachedCallsTest, TheEndDoesNotWaitForThoseThatHang) {
    std::atomic<bool> finished = false;
    {
        DetachedCalls calls("readers");
        calls.start("web", [released = released_, &finished] {
            released.wait();
            return [&finished] { finished = true; };
        });
        ASSERT_TRUE(test::eventually([&] { return calls.timeOf("web") > 1ms; }));
    }
    EXPECT_FALSE(finished);
}

}  // namespace
}  // namespace kx::agent
