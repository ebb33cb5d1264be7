#include "core/RequestLoop.h"

#include <sys/select.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "mib/LibraryLock.h"
#include "mib/NetSnmp.h"

// clang-format off
#include <net-snmp/library/large_fd_set.h>
#include <net-snmp/library/fd_event_manager.h>
// clang-format on

namespace {

/// A signal that comes right before the wait begins does not end it, so that is how late it may be seen.
constexpr timeval longestWait{1, 0};

/// Until the next try when it is impossible to wait, for lack of memory for example.
constexpr std::chrono::milliseconds pauseAfterError{100};

/// Logs an error once until there is another, or none.
void reportWaiting(int error) {
    static int reported = 0;
    if (error != reported && error != 0) {
        snmp_log(LOG_ERR, "cannot wait for requests: %s; trying again every 100 ms\n", std::strerror(error));
    }
    reported = error;
}

/// A request comes from the master agent's socket and is passed on through a pipe within the library, as is its answer.
/// Each is one pass of the library, which is cheaper made at once than by waiting again.
constexpr int innerPasses = 2;

/// What the library waits for: input on its sockets, and its next alarm.
class Awaited {
public:
    Awaited() {
        netsnmp_large_fd_set_init(&readable_, FD_SETSIZE);
        netsnmp_large_fd_set_init(&writable_, FD_SETSIZE);
        netsnmp_large_fd_set_init(&exceptional_, FD_SETSIZE);
        // The library is asked how long it would wait at most; it says by `block` that it would wait for ever.
        int block = 1;
        snmp_select_info2(&descriptors_, &readable_, &timeout_, &block);
        netsnmp_external_event_info2(&descriptors_, &readable_, &writable_, &exceptional_);
        hasTimeout_ = block == 0;
    }
    ~Awaited() {
        netsnmp_large_fd_set_cleanup(&readable_);
        netsnmp_large_fd_set_cleanup(&writable_);
        netsnmp_large_fd_set_cleanup(&exceptional_);
    }
    Awaited(const Awaited&) = delete;
    Awaited& operator=(const Awaited&) = delete;

    /// @return whether there is something to be done for the library; false when a signal came first, or nothing did
    bool wait() {
        const bool isLong = !hasTimeout_ || timeout_.tv_sec >= longestWait.tv_sec;
        timeval timeout = isLong ? longestWait : timeout_;
        const int ready = netsnmp_large_fd_set_select(descriptors_, &readable_, &writable_, &exceptional_, &timeout);
        const int error = ready < 0 && errno != EINTR ? errno : 0;
        reportWaiting(error);
        if (error != 0) {
            std::this_thread::sleep_for(pauseAfterError);
        }
        return ready > 0 || (ready == 0 && !isLong);
    }

private:
    int descriptors_ = 0;
    netsnmp_large_fd_set readable_{};
    netsnmp_large_fd_set writable_{};
    netsnmp_large_fd_set exceptional_{};
    timeval timeout_{};
    bool hasTimeout_ = false;
};

}  // namespace

void serveRequests() {
    const InLibrary library;
    Awaited awaited;
    bool isReady = false;
    {
        const OutOfLibrary waiting;
        isReady = awaited.wait();
    }
    if (isReady) {
        int handled = agent_check_and_process(1);
        for (int pass = 0; pass < innerPasses && handled > 0; ++pass) {
            handled = agent_check_and_process(0);
        }
    }
}
