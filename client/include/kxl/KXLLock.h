// The library's mutex.
#pragma once

#include <mutex>

/// @brief A mutex that is not recursive: locking it twice on one thread never returns. Works with
/// std::lock_guard and std::unique_lock.
class KXLLock {
public:
    KXLLock() = default;
    KXLLock(const KXLLock&) = delete;
    KXLLock& operator=(const KXLLock&) = delete;

    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }
    /// @return true when the lock was free and is now held
    bool try_lock() { return mutex_.try_lock(); }

private:
    std::mutex mutex_;
};
