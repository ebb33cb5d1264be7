// A value that cannot be reached without its lock.
#pragma once

#include <mutex>
#include <utility>

namespace kx::client {

/// @brief Holds a cheaply copied value (a counted pointer, an identifier) that several threads read and one
/// replaces. The lock is held only for the copy, so nobody ever waits for more than that.
template <typename T>
class Guarded {
public:
    explicit Guarded(T value = T()) : value_(std::move(value)) {}

    T load() const {
        const std::lock_guard guard(mutex_);
        return value_;
    }

    void store(T value) {
        {
            const std::lock_guard guard(mutex_);
            std::swap(value_, value);
        }
        // What was held before is freed here, outside the lock: it may be ten thousand environments.
    }

private:
    mutable std::mutex mutex_;
    T value_;
};

}  // namespace kx::client
