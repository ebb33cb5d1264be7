// The thread of a watch: it waits for descriptors, and runs in between the tasks that the watch's owner posts.
//
// Threads: post() from any thread, at once; start() once, by the owner; the rest on the thread itself (see Worker.h for
// what becomes of exceptions).
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

#include "agent/base/OwnedDescriptor.h"
#include "agent/base/Worker.h"

namespace kx::agent::lxc {

/// To be the last member of a watch: what its work uses is there before it and after it.
class OrderThread {
public:
    /// @param name see Worker
    /// @throws std::runtime_error when the system has no descriptor left
    explicit OrderThread(std::string name);

    /// @brief Ends and joins the thread, waiting for a pass to end. Tasks that are left are dropped.
    ~OrderThread();

    OrderThread(const OrderThread&) = delete;
    OrderThread& operator=(const OrderThread&) = delete;

    /// @brief Starts the thread. It runs the tasks that were posted and then one pass, again and again.
    /// @param pass returns once descriptor() is readable, at the latest
    /// @throws std::system_error when there can be no thread
    void start(std::function<void()> pass);

    /// @brief Runs a task on the thread, after those posted before.
    void post(std::function<void()> task);

    /// @return what is readable when the thread has something to do but wait
    int descriptor() const { return ready_.get(); }

    /// @return whether a pass should end soon, as the thread does
    bool isEnding() const { return ending_; }

private:
    void run();
    void runTasks();
    void wake();

    const OwnedDescriptor ready_;
    std::mutex mutex_;  ///< over tasks_, held for moments
    std::deque<std::function<void()>> tasks_;
    std::function<void()> pass_;
    std::atomic<bool> ending_{false};
    Worker thread_;
};

}  // namespace kx::agent::lxc
