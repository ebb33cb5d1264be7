// A backend on trial: what it finds is held back until it is decided that this backend is the one to use.
//
// A reload starts the new backend before it gives up the old one, so that a new one that cannot start costs nothing.
// Main thread only.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/core/BackendChoice.h"

namespace kx::agent {

/// Owns one backend.
class BackendSlot : private BackendListener {
public:
    using Sink = std::function<void(HostImage)>;
    using AlertSink = std::function<void(AlertSignal)>;

    /// Makes the backend; the listener is the slot's own.
    using Maker = std::function<std::unique_ptr<Backend>(BackendListener&)>;

    /// @param kind what the maker makes
    /// @param sink takes the images, from activate() to stop()
    /// @param alertSink takes the alerts likewise
    BackendSlot(BackendKind kind, const Maker& maker, Sink sink, AlertSink alertSink);
    ~BackendSlot() override;

    /// @brief Starts watching.
    /// @throws std::runtime_error when there is nothing to watch; the slot can be thrown away then
    void start() { backend_->start(); }

    /// @brief Lets images and alerts through, at once the last image and all alerts that were held back.
    void activate();

    /// @brief Stops watching; may be followed by start().
    void stop() { backend_->stop(); }

    /// @brief See Backend::readCounters().
    void readCounters(const CounterSink& sink) { backend_->readCounters(sink); }

    /// @brief See Backend::freshness().
    Freshness freshness() const { return backend_->freshness(); }

    BackendKind kind() const { return kind_; }
    std::string name() const { return backend_->name(); }
    bool isDescribed() const { return backend_->isDescribed(); }

private:
    void hostChanged(HostImage image) override;
    void alert(AlertSignal signal) override;

    BackendKind kind_;
    Sink sink_;
    AlertSink alertSink_;
    bool active_ = false;
    std::optional<HostImage> heldBack_;
    std::vector<AlertSignal> alertsHeldBack_;
    std::unique_ptr<Backend> backend_;
};

}  // namespace kx::agent
