#include "agent/core/BackendSlot.h"

#include <utility>

namespace kx::agent {

BackendSlot::BackendSlot(boost::asio::io_context& io, BackendKind kind, const Config& config,
                         const std::string& machineId, Sink sink)
    : kind_(kind), sink_(std::move(sink)), backend_(makeBackend(io, kind, config, machineId, *this)) {}

BackendSlot::~BackendSlot() {
    backend_->stop();
}

void BackendSlot::activate() {
    active_ = true;
    if (heldBack_) {
        sink_(*std::exchange(heldBack_, std::nullopt));
    }
}

void BackendSlot::hostChanged(HostImage image) {
    if (active_) {
        sink_(std::move(image));
    } else {
        heldBack_ = std::move(image);
    }
}

}  // namespace kx::agent
