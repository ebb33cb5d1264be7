// The event loop's machinery behind KXLEventLoopPrototype.
//
// Thread promise: post(), join(), onLoopThread() and attach() from any thread. start() and stop() from the
// owner's thread; stop() also from the loop thread, where it does not wait.
#pragma once

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <kxl/KXLEventLoopPrototype.h>

#include "client/src/loop/Timeouts.h"

namespace kx::client {

/// @brief Something on the loop that must let go of its sockets and timers before the loop can end.
class LoopClient {
public:
    virtual ~LoopClient() = default;
    /// @brief Called once, on the loop thread, or where the loop never ran on the thread that stops it. Must
    /// cancel everything pending and deliver nothing.
    virtual void loopStopping() = 0;
};

/// @brief One io_context and its one thread.
///
/// The loop ends by running dry, not by being cut off: stopping tells every client to cancel what it waits for,
/// runs what was posted before, and joins. So no posted task is lost with what it owns.
class Loop : public std::enable_shared_from_this<Loop> {
public:
    Loop();
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    /// @brief Replaces the deadlines of all that will run on this loop. Only before anything does.
    void setTimeouts(const Timeouts& timeouts) { timeouts_ = timeouts; }
    const Timeouts& timeouts() const { return timeouts_; }

    void start();
    void stop();

    /// @brief Waits for the thread of a loop that has been stopped; on that thread itself, or when the loop never
    /// ran, it returns at once.
    void join();

    /// @return false when the loop does not run; then the task was not taken
    bool post(std::function<void()> task);

    /// @brief Registers a client for loopStopping().
    void attach(std::weak_ptr<LoopClient> client);

    bool onLoopThread() const { return std::this_thread::get_id() == threadId(); }
    boost::asio::io_context& context() { return context_; }

    /// @brief As long as it exists, a thread other than the loop's waits for the loop.
    class Wait {
    public:
        explicit Wait(Loop& loop) : loop_(loop) { ++loop_.waits_; }
        ~Wait() { --loop_.waits_; }
        Wait(const Wait&) = delete;
        Wait& operator=(const Wait&) = delete;

    private:
        Loop& loop_;
    };
    /// @return whether a thread waits for the loop, or the loop has been asked to stop. Any thread.
    bool isWaitedFor() const { return waits_ > 0 || isStopping_; }

    void setEventGate(boost::intrusive_ptr<KXLEventGatePrototype> gate);
    /// @return whether events may be delivered now. Loop thread.
    bool eventGateIsOpen() const;

private:
    enum class State { Made, Running, Stopped };

    std::thread::id threadId() const;
    void run();
    void tellClients();

    Timeouts timeouts_;
    boost::asio::io_context context_{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
    std::atomic<int> waits_{0};
    std::atomic<bool> isStopping_{false};

    mutable std::mutex mutex_;  ///< guards the members below; never held while anything runs
    State state_ = State::Made;
    std::thread thread_;
    std::thread::id threadId_;
    std::vector<std::weak_ptr<LoopClient>> clients_;
    boost::intrusive_ptr<KXLEventGatePrototype> eventGate_;
};

}  // namespace kx::client
