// A backend on trial: what it finds is held back until it is decided that this backend is the one to use.
//
// A reload starts the new backend before it gives up the old one, so that a new one that cannot start costs nothing.
// Main thread only.
#pragma once

#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "agent/core/BackendChoice.h"

namespace kx::agent {

/// Owns one backend.
class BackendSlot : private BackendListener {
public:
    using Sink = std::function<void(HostImage)>;

    /// @param io must outlive the slot
    /// @param sink takes the images, from activate() to stop()
    BackendSlot(boost::asio::io_context& io, BackendKind kind, const Config& config, const std::string& machineId,
                Sink sink);
    ~BackendSlot() override;

    /// @brief Starts watching.
    /// @throws std::runtime_error when there is nothing to watch; the slot can be thrown away then
    void start() { backend_->start(); }

    /// @brief Lets the images through, at once the last one held back.
    void activate();

    /// @brief Stops watching; may be followed by start().
    void stop() { backend_->stop(); }

    BackendKind kind() const { return kind_; }
    std::string name() const { return backend_->name(); }

private:
    void hostChanged(HostImage image) override;

    BackendKind kind_;
    Sink sink_;
    bool active_ = false;
    std::optional<HostImage> heldBack_;
    std::unique_ptr<Backend> backend_;
};

}  // namespace kx::agent
