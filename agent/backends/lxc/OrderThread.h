// The thread of a watch: it waits for descriptors, and does in between what the watch's owner asks of it.
//
// Threads: post() from any thread, at once; start() once, by the owner; the rest on the thread itself, which has every
// signal blocked.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {

/// To be the last member of a watch: what its work uses is there before it and after it.
class OrderThread {
public:
    /// @throws std::runtime_error when the system has no descriptor left
    OrderThread();

    /// @brief Ends and joins the thread, waiting for a turn to end. Orders that are left are dropped.
    ~OrderThread();

    OrderThread(const OrderThread&) = delete;
    OrderThread& operator=(const OrderThread&) = delete;

    /// @brief Starts the thread. It does what was ordered and then takes a turn, again and again.
    /// @param turn one turn: returns once descriptor() is readable, at the latest. One that throws is taken again a
    /// moment later.
    /// @throws std::system_error when there can be no thread
    void start(std::function<void()> turn);

    /// @brief Has something done on the thread, after what was ordered before. What throws stays the first, and is
    /// tried again a moment later.
    void post(std::function<void()> order);

    /// @return what is readable when the thread has something to do but wait
    int descriptor() const { return ready_.get(); }

    /// @return whether a turn should end soon, as the thread does
    bool isEnding() const { return ending_; }

private:
    void run();
    void obey();
    void wake();

    const OwnedDescriptor ready_;
    std::mutex mutex_;  ///< over orders_, held for moments
    std::deque<std::function<void()>> orders_;
    std::function<void()> turn_;
    std::atomic<bool> ending_{false};
    std::thread thread_;
};

}  // namespace kx::agent::lxc
