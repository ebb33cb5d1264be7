#include "agent/core/Watchdog.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <boost/asio/io_context.hpp>
#include <cstdlib>
#include <future>
#include <string>

#include "agent/base/OwnedDescriptor.h"
#include "agent/base/Worker.h"
#include "tests/support/TemporaryFolder.h"

namespace kx::agent {
namespace {

using namespace std::chrono_literals;

/// Takes the service manager's place.
class WatchdogTest : public ::testing::Test {
protected:
    WatchdogTest() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        const std::string path = folder_ / "notify";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        ::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
        ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
        ::setenv("WATCHDOG_USEC", "200000", 1);
    }
    ~WatchdogTest() override {
        ::unsetenv("NOTIFY_SOCKET");
        ::unsetenv("WATCHDOG_USEC");
    }

    /// @return how many notices have come since the last call
    int notices() const {
        int count = 0;
        char buffer[64];
        for (ssize_t bytes = 0; (bytes = ::recv(socket_.get(), buffer, sizeof buffer, 0)) > 0;) {
            count += std::string(buffer, static_cast<std::size_t>(bytes)) == "WATCHDOG=1" ? 1 : 0;
        }
        return count;
    }

    bool runUntil(const std::function<bool()>& condition) {
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end) {
                return false;
            }
            io_.run_one_for(10ms);
        }
        return true;
    }

    boost::asio::io_context io_;

private:
    test::TemporaryFolder folder_;
    OwnedDescriptor socket_;
};

TEST_F(WatchdogTest, NotifiesAgainAndAgain) {
    const Watchdog watchdog(io_);
    int count = 0;
    EXPECT_TRUE(runUntil([&] { return (count += notices()) >= 3; }));
}

TEST_F(WatchdogTest, NotifiesNoMoreWhileAWorkerMakesNoProgress) {
    ::testing::internal::CaptureStderr();
    std::promise<void> end;
    Worker worker("sorter");
    worker.start([future = end.get_future().share()] { future.wait(); });
    const Watchdog watchdog(io_);
    ASSERT_TRUE(runUntil([] { return Worker::busiest() && Worker::busiest()->time > 200ms; }));
    notices();
    ASSERT_TRUE(runUntil([] { return Worker::busiest()->time > 400ms; }));
    EXPECT_EQ(notices(), 0);
    end.set_value();
    EXPECT_TRUE(runUntil([&] { return notices() > 0; }));
    EXPECT_THAT(::testing::internal::GetCapturedStderr(), ::testing::HasSubstr("thread sorter has made no progress"));
}

}  // namespace
}  // namespace kx::agent
