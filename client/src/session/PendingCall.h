// One synchronous request and its caller.
//
// Thread promise: the caller waits on its own thread; the answer comes from the loop thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#include <kxl/KXLRequestHandlerPrototype.h>

#include "wire/Protocol.h"

namespace kx::client {

class PendingCall {
public:
    /// @param frame null: the connection was lost
    /// @return false when the caller has given up
    bool finish(const wire::Frame* frame) {
        const std::lock_guard guard(mutex_);
        isFinished_ = true;
        if (isGivenUp_) {
            return false;
        }
        if (frame != nullptr) {
            answer_ = *frame;
        }
        code_ = frame != nullptr ? 0 : static_cast<int>(KXL_ERROR_DISCONNECT);
        changed_.notify_all();
        return true;
    }

    /// @return 0 with the answer, KXL_ERROR_DISCONNECT, or KXL_ERROR_TIMEOUT after which the call is given up
    int wait(std::chrono::steady_clock::time_point deadline, wire::Frame& answer) {
        std::unique_lock guard(mutex_);
        if (!changed_.wait_until(guard, deadline, [this] { return isFinished_; })) {
            isGivenUp_ = true;
            return KXL_ERROR_TIMEOUT;
        }
        answer = std::move(answer_);
        return code_;
    }

    /// @return whether the outcome is there, perhaps too late
    bool isFinished() const {
        const std::lock_guard guard(mutex_);
        return isFinished_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool isFinished_ = false;
    bool isGivenUp_ = false;
    int code_ = 0;
    wire::Frame answer_;
};

}  // namespace kx::client
