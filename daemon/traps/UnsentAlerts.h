// Alerts that could not be sent as traps: counted, and logged when that begins and when it ends.
//
// Thread promise: any thread.
#pragma once

#include <mutex>

/// @brief The count of the process.
class UnsentAlerts {
public:
    static UnsentAlerts& instance();

    /// @brief One more.
    /// @param why the reason, in words that stay the same object
    void add(const char* why);

    /// @brief An alert was sent, or the process exits: logs how many were not before.
    void end();

private:
    void logCount();

    std::mutex mutex_;
    const char* why_ = nullptr;  ///< null: none is being dropped
    unsigned long count_ = 0;
};
