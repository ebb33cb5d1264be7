// Who may be inside the agent library, which is not made for several threads.
//
// Traps are sent on the client library's event-loop thread, at any moment; all else that uses the agent library runs on
// the main thread. Both send on the one session with the master agent, which has one buffer and one list of what is
// unanswered: without a lock, a trap that is sent while a request is being answered takes the answer's place in the
// buffer, and one of the two is lost, or the master agent closes a session that makes no sense to it.
//
// Thread promise: any thread. First come, first served. Not recursive.
//
// The last lock but one (MasterSession's): whoever holds it waits for no thread of ours. The main thread therefore
// releases it while it waits for requests, and while it is in a callback of ours that asks the link for anything: the
// link's lock is held by whoever sends a trap. The main thread may, with the lock held, wait seconds for the master
// agent: pings and registrations are synchronous. So others wait for the lock within limits.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>

/// @brief A FIFO lock. Works with std::lock_guard.
class LibraryLock {
public:
    /// The one of the process.
    static LibraryLock& instance();

    void lock();
    /// @return whether it was acquired within the time
    bool lockWithin(std::chrono::milliseconds patience);
    void unlock();

    /// @return whether one thread has held it for longer than that. Any thread, without waiting.
    bool isHeldFor(std::chrono::milliseconds duration) const;

    /// @return whether the calling thread holds it
    static bool isHeldHere();

private:
    using Clock = std::chrono::steady_clock;
    static constexpr Clock::rep notHeld = 0;

    void becomeHeld();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t nextTicket_ = 0;
    std::uint64_t served_ = 0;
    std::set<std::uint64_t> abandoned_;  ///< tickets whose threads do not wait any more
    std::atomic<Clock::rep> heldSince_{notHeld};
};

/// @brief The calling thread may use the agent library for as long as this lives.
class InLibrary {
public:
    InLibrary() { LibraryLock::instance().lock(); }
    ~InLibrary() { LibraryLock::instance().unlock(); }
    InLibrary(const InLibrary&) = delete;
    InLibrary& operator=(const InLibrary&) = delete;
};

/// @brief Inside a callback of the agent library: others may use it for as long as this lives. What the callback may
/// use meanwhile is what belongs to its own request.
class OutOfLibrary {
public:
    OutOfLibrary() : wasIn_(LibraryLock::isHeldHere()) {
        if (wasIn_) {
            LibraryLock::instance().unlock();
        }
    }
    ~OutOfLibrary() {
        if (wasIn_) {
            LibraryLock::instance().lock();
        }
    }
    OutOfLibrary(const OutOfLibrary&) = delete;
    OutOfLibrary& operator=(const OutOfLibrary&) = delete;

private:
    const bool wasIn_;
};
