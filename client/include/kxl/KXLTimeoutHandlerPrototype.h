// Something to be called after a time, on the event loop's thread.
//
// Thread promise: made and set on any one thread before it is registered; from then on it is the loop's.
#pragma once

#include <ctime>

#include <kxl/KXLClock.h>
#include <kxl/KXLRefCounter.h>

/// @brief A timeout and what it calls. Registered with KXLAccessPrototype::registerTimeout it fires once. The order of
/// the virtual functions is part of the contract.
class KXLTimeoutHandlerPrototype : public virtual KXLRefCounter {
public:
    virtual void handleTimeout() = 0;

    /// @brief Sets when the timeout is to fire.
    ///
    /// The two forms are not alike, and callers rely on it: without microseconds it is so many seconds from now; with
    /// them the period is remembered, and the number of microseconds is taken for the time itself.
    /// @param sec seconds from now; 0 or less: as soon as it is registered
    /// @param usec 0, or the expiry
    void set(long sec, long usec) {
        period = sec;
        if (usec == 0) {
            expiry = kxlTime() + sec;
        } else {
            expiry = usec;
            second = usec;
        }
    }

    /// @return whether it is still to fire
    bool isActive() const { return active; }
    /// @brief A timeout that is not active does not fire.
    void setActive(bool isWanted) { active = isWanted; }
    /// @return seconds since 1970-01-01 UTC
    std::time_t getExpiry() const { return expiry; }
    /// @return seconds, as they were set
    long getPeriod() const { return period; }

private:
    bool active = true;
    std::time_t expiry = 0;
    long second = 0;
    long period = 0;
    int reserved = 0;  // NOLINT(clang-diagnostic-unused-private-field): part of what the interface lays down
};
