// One caller at a time, with a deadline.
//
// Thread promise: any thread. (Not std::timed_mutex: the thread sanitizer of g++ 12 does not know its locking.)
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kx::client {

class Turn {
public:
    /// @brief Waits until nobody has the turn, and takes it.
    /// @return false when it was not free by the deadline
    bool take(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock guard(mutex_);
        if (!free_.wait_until(guard, deadline, [this] { return !taken_; })) {
            return false;
        }
        taken_ = true;
        return true;
    }

    void giveBack() {
        const std::lock_guard guard(mutex_);
        taken_ = false;
        free_.notify_one();
    }

private:
    std::mutex mutex_;
    std::condition_variable free_;
    bool taken_ = false;
};

}  // namespace kx::client
