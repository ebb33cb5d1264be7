// Reads the counters of running containers: what has passed through their interfaces, and their disk quotas.
//
// Reading thousands of containers takes a while, so it is done on a thread of its own, apart from the worker that
// watches what containers do. A disk may keep a reader of quotas waiting, perhaps for ever; they are read by
// DetachedCalls.
//
// Threads: setTargets() and read() from any thread, at once; the sink is called on this object's own thread, which has
// every signal blocked.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "agent/backends/lxc/CounterTarget.h"
#include "agent/backends/lxc/LogSink.h"
#include "agent/backends/lxc/NetworkCounters.h"
#include "agent/backends/lxc/QuotaCounters.h"
#include "agent/base/Worker.h"
#include "agent/counters/CounterImage.h"

namespace kx::agent::lxc {

/// Reads from its construction to its destruction.
class CounterThread {
public:
    /// @param log gets log lines, on this object's thread
    /// @throws std::runtime_error when the system has not what it needs
    explicit CounterThread(LogSink log);

    /// @brief Stops and joins the thread, waiting for one container to be read; readings are given up.
    ~CounterThread();

    CounterThread(const CounterThread&) = delete;
    CounterThread& operator=(const CounterThread&) = delete;

    /// @brief Says which containers run.
    void setTargets(std::vector<CounterTarget> targets);

    /// @brief Reads the counters of all of them, soon.
    void read(CounterSink sink);

private:
    using Targets = std::shared_ptr<const std::vector<CounterTarget>>;

    void run();
    void answer(const std::vector<CounterTarget>& targets, const std::vector<CounterSink>& sinks);
    std::optional<CounterImage> readAll(const std::vector<CounterTarget>& targets);
    bool isEnding();

    NetworkCounters network_;
    QuotaCounters quota_;

    std::mutex mutex_;  ///< over the next four
    std::condition_variable changed_;
    Targets targets_;
    std::vector<CounterSink> sinks_;
    bool ending_ = false;

    Worker thread_;
};

}  // namespace kx::agent::lxc
