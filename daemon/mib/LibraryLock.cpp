#include "mib/LibraryLock.h"

namespace {

thread_local bool heldHere = false;

}  // namespace

LibraryLock& LibraryLock::instance() {
    static LibraryLock theOne;
    return theOne;
}

bool LibraryLock::isHeldHere() {
    return heldHere;
}

bool LibraryLock::isHeldFor(std::chrono::milliseconds duration) const {
    const Clock::rep since = heldSince_;
    return since != notHeld && Clock::now() - Clock::time_point(Clock::duration(since)) > duration;
}

// By tickets: a busy main thread, which asks for its next turn as soon as it has given one up, would otherwise take
// it again before the other thread has woken up, for as long as managers walk.
void LibraryLock::lock() {
    std::unique_lock guard(mutex_);
    const std::uint64_t ticket = nextTicket_++;
    changed_.wait(guard, [&] { return served_ == ticket; });
    becomeHeld();
}

bool LibraryLock::lockWithin(std::chrono::milliseconds patience) {
    std::unique_lock guard(mutex_);
    const std::uint64_t ticket = nextTicket_++;
    if (!changed_.wait_for(guard, patience, [&] { return served_ == ticket; })) {
        abandoned_.insert(ticket);
        return false;
    }
    becomeHeld();
    return true;
}

void LibraryLock::becomeHeld() {
    heldSince_ = Clock::now().time_since_epoch().count();
    heldHere = true;
}

void LibraryLock::unlock() {
    heldHere = false;
    heldSince_ = notHeld;
    {
        const std::lock_guard guard(mutex_);
        ++served_;
        while (abandoned_.erase(served_) != 0) {
            ++served_;
        }
    }
    changed_.notify_all();
}
