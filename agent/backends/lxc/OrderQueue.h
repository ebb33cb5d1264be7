// What an owner asks of a watch, to be done on the watch's own thread, which waits for descriptors.
//
// Threads: post() and wake() from any thread, at once; obey() on the watch's.
#pragma once

#include <deque>
#include <functional>
#include <mutex>

#include "agent/core/OwnedDescriptor.h"

namespace kx::agent::lxc {

/// Orders in the order in which they were given.
class OrderQueue {
public:
    /// @throws std::runtime_error when the system has no descriptor left
    OrderQueue();

    OrderQueue(const OrderQueue&) = delete;
    OrderQueue& operator=(const OrderQueue&) = delete;

    /// @return what is readable when obey() is to be called
    int descriptor() const { return ready_.get(); }

    void post(std::function<void()> order);

    /// @brief Makes the descriptor readable without an order.
    void wake();

    /// @brief Does what was asked for. One that throws stays the first, and is tried again by the next call.
    void obey();

private:
    const OwnedDescriptor ready_;
    std::mutex mutex_;  ///< over orders_, held for moments
    std::deque<std::function<void()>> orders_;
};

}  // namespace kx::agent::lxc
