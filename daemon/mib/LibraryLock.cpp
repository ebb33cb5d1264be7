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

// By tickets: a busy main thread, which asks for its next turn as soon as it has given one up, would otherwise take
// it again before the other thread has woken up, for as long as managers walk.
void LibraryLock::lock() {
    std::unique_lock guard(mutex_);
    const std::uint64_t ticket = nextTicket_++;
    changed_.wait(guard, [&] { return served_ == ticket; });
    heldHere = true;
}

void LibraryLock::unlock() {
    heldHere = false;
    {
        const std::lock_guard guard(mutex_);
        ++served_;
    }
    changed_.notify_all();
}
