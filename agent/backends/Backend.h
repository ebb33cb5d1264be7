// Where environments come from: real containers, or a described host.
//
// Threads: a backend may run threads of its own, but calls its listener on the agent's main thread only, by
// posting to the io_context it was given. start(), stop() and the destructor are called on the main thread.
#pragma once

#include <string>

#include "agent/alerts/Alert.h"
#include "agent/counters/CounterImage.h"
#include "agent/inventory/HostImage.h"

namespace kx::agent {

/// Receives what a backend finds. Main thread only.
class BackendListener {
public:
    virtual ~BackendListener() = default;

    /// @brief The host's whole image, at the start and after every change. The inventory finds the differences.
    virtual void hostChanged(HostImage image) = 0;

    /// @brief A resource has run out, is about to, or has recovered. Not before the image with the environment that
    /// it is about.
    virtual void alert(AlertSignal signal) = 0;
};

/// A source of environments.
class Backend {
public:
    virtual ~Backend() = default;

    /// @brief Starts watching and delivers the first image, before it returns or soon after.
    /// @throws std::runtime_error when there is nothing to watch; the text names the file or folder
    virtual void start() = 0;

    /// @brief Stops watching; nothing is delivered once it has returned.
    virtual void stop() = 0;

    /// @return the backend's name for log lines: "lxc", "simulated"
    virtual std::string name() const = 0;

    /// @brief Reads the counters of all containers.
    /// @param sink called once, before this returns or soon after, unless the backend is stopped meanwhile; where it is
    /// not started there is nothing to be read
    virtual void readCounters(const CounterSink& sink) { sink({std::chrono::steady_clock::now(), {}}); }

    /// @return how up to date what was delivered is
    virtual Freshness freshness() const { return {}; }

    /// @return whether there is no real host behind it, so that alerts may be made up as clients wish
    virtual bool isDescribed() const { return false; }
};

}  // namespace kx::agent
