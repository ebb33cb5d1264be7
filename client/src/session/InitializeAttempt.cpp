#include "client/src/session/InitializeAttempt.h"

#include <kxl/KXLRequestHandlerPrototype.h>

namespace kx::client {

bool InitializeAttempt::finish(State state, int code, const std::function<void()>& before) {
    const std::lock_guard guard(mutex_);
    if (state_ != State::Pending) {
        return false;
    }
    if (before) {
        before();
    }
    state_ = state;
    code_ = code;
    changed_.notify_all();
    return true;
}

int InitializeAttempt::wait(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock guard(mutex_);
    changed_.wait_until(guard, deadline, [this] { return state_ != State::Pending; });
    if (state_ == State::Pending) {
        state_ = State::GivenUp;
        code_ = KXL_ERROR_TIMEOUT;
    }
    return code_;
}

}  // namespace kx::client
