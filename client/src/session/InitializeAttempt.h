// One call of initializeSync, shared by its caller and the loop thread.
//
// Thread promise: the caller waits on its own thread; succeed() and fail() come from the loop thread. Whoever is
// first decides: an attempt that its caller has given up can no longer succeed.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace kx::client {

class InitializeAttempt {
public:
    /// @param before run first, while the caller still waits and cannot give up
    /// @return false when the caller has given up already; then `before` was not run
    bool succeed(const std::function<void()>& before) { return finish(State::Succeeded, 0, before); }
    /// @param code a KXLRequestError
    /// @return false when the caller has given up already
    bool fail(int code) { return finish(State::Failed, code); }

    /// @brief Waits for the outcome.
    /// @return 0, the code of the failure, or KXL_ERROR_TIMEOUT after which the attempt is given up
    int wait(std::chrono::steady_clock::time_point deadline);

private:
    enum class State { Pending, Succeeded, Failed, GivenUp };

    bool finish(State state, int code, const std::function<void()>& before = {});

    std::mutex mutex_;
    std::condition_variable changed_;
    State state_ = State::Pending;
    int code_ = 0;
};

}  // namespace kx::client
