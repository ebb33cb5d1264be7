// Ends a question to a container's monitor that is not answered.
//
// liblxc waits for the answer without limit, and a monitor that runs its start hooks, is stopped or hangs accepts
// the connection but does not answer; one such container would hide the changes of all others. liblxc offers
// neither a time limit nor its socket, so this class finds the socket among the process's descriptors, by the
// address it is connected to, and shuts it down: liblxc then sees the connection end.
//
// Threads: guard() is used by one thread at a time; a thread of this class's own does the breaking.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "agent/base/Worker.h"

namespace kx::agent::lxc {

/// Watches over calls that may get stuck.
class StuckCallBreaker {
public:
    /// @param limit how long a call may take before its connection is ended
    explicit StuckCallBreaker(std::chrono::milliseconds limit);
    ~StuckCallBreaker();

    StuckCallBreaker(const StuckCallBreaker&) = delete;
    StuckCallBreaker& operator=(const StuckCallBreaker&) = delete;

    /// @brief Makes a call, and ends its connections to the socket when it takes longer than the limit.
    /// @param socketName abstract socket the call talks to, see commandSocketName()
    /// @param call must return once its connection is shut down
    /// @return false when the call had to be broken; what it delivered is then worth nothing
    bool guard(const std::string& socketName, const std::function<void()>& call);

private:
    bool endCall();
    void run();
    void breakWhileStuck(std::unique_lock<std::mutex>& lock);

    const std::chrono::milliseconds limit_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string socketName_;   ///< guarded by mutex_
    std::uint64_t calls_ = 0;  ///< guarded by mutex_; number of the latest call
    bool inCall_ = false;      ///< guarded by mutex_
    bool broken_ = false;      ///< guarded by mutex_; the latest call was broken
    bool breaking_ = false;    ///< guarded by mutex_; connections are being shut down without the lock
    bool ending_ = false;      ///< guarded by mutex_
    Worker thread_;
};

/// @brief Shuts down every socket of this process that is connected to an abstract unix socket.
/// @param name the address without its leading zero byte
/// @return how many were shut down
int shutDownConnectionsTo(const std::string& name);

}  // namespace kx::agent::lxc
