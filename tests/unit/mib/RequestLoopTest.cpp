#include "core/RequestLoop.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>

#include "tests/support/LogCapture.h"
#include "tests/unit/mib/InProcessAgent.h"

// clang-format off
#include <net-snmp/library/fd_event_manager.h>
// clang-format on

namespace kx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

/// Has the library wait for input on a descriptor that nobody has opened, which select() refuses.
class BadDescriptor {
public:
    BadDescriptor() {
        ::close(descriptor_);
        register_readfd(
            descriptor_, [](int, void*) {}, nullptr);
    }
    ~BadDescriptor() { unregister_readfd(descriptor_); }
    BadDescriptor(const BadDescriptor&) = delete;
    BadDescriptor& operator=(const BadDescriptor&) = delete;

private:
    const int descriptor_ = ::dup(STDERR_FILENO);
};

TEST(RequestLoop, PausesAndLogsOnceWhileItCannotWait) {
    InProcessAgent::instance();
    const LogCapture log;
    serveRequests();
    {
        const BadDescriptor bad;
        const auto started = std::chrono::steady_clock::now();
        for (int pass = 0; pass < 3; ++pass) {
            serveRequests();
        }
        EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(300));
        EXPECT_THAT(log.lines(), ElementsAre(Pair(LOG_ERR,
                                                  "cannot wait for requests: Bad file descriptor; trying again "
                                                  "every 100 ms\n")));
    }
    serveRequests();
    EXPECT_EQ(log.lines().size(), 1U);
    const BadDescriptor bad;
    serveRequests();
    EXPECT_EQ(log.lines().size(), 2U) << "it had worked in between";
}

}  // namespace
}  // namespace kx::test
