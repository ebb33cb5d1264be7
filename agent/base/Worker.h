// The agent's threads beside the main one.
//
// Every signal is blocked on them, so that SIGTERM always interrupts the main thread. What their bodies throw ends the
// process, with a line in the log: a task that fails would fail again, and the service manager starts the agent anew.
// The threads that an agent cannot do without are Workers: how long each has been at work without a pause is known, so
// that the service manager can be kept informed (see ServiceManager.h).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>

namespace kx::agent {

/// @brief Starts a thread as described above.
/// @param name for the log and for tools that list threads; the first 15 bytes count there
/// @param body what throws ends the process with status 1
/// @throws std::system_error when there can be no thread
std::thread startThread(std::string name, std::function<void()> body);

/// One thread; the last member of its owner, which asks it to end before it joins.
class Worker {
public:
    /// @param name see startThread()
    explicit Worker(std::string name);

    /// @brief Joins the thread if it has been started.
    ~Worker();

    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// @brief Starts the thread, once.
    /// @throws std::system_error when there can be no thread
    void start(std::function<void()> body);

    /// @brief Waits for the body to return.
    void join();

    /// The calling thread, if it is a Worker's, has nothing to do while one of these exists.
    class Pause {
    public:
        Pause();
        ~Pause();
        Pause(const Pause&) = delete;
        Pause& operator=(const Pause&) = delete;
    };

    /// How long the process's slowest Worker has been at work since its last pause.
    struct Busy {
        std::string name;
        std::chrono::milliseconds time{0};
    };

    /// @return nothing when all of them pause; any thread
    static std::optional<Busy> busiest();

private:
    const std::string name_;
    std::atomic<std::int64_t> workingSinceMs_{0};  ///< of the monotonic clock; 0: it pauses
    std::thread thread_;
};

}  // namespace kx::agent
