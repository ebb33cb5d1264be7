// Ends the process when something takes too long that is not to be waited for without limit.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace kx::agent {

/// From its construction to its destruction. One thread uses it; it has a thread of its own that waits.
class Deadline {
public:
    /// @param limit after which the process ends at once, with a line in the log: without destructors, so that nothing
    /// waits for a thread that hangs in a file system
    /// @param what is done meanwhile, for the log
    /// @param status of the process then
    Deadline(std::chrono::milliseconds limit, std::string what, int status);
    ~Deadline();
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool over_ = false;
    std::thread thread_;
};

}  // namespace kx::agent
