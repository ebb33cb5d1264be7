#include "agent/core/BackendSlot.h"

#include <utility>

namespace kx::agent {

BackendSlot::BackendSlot(BackendKind kind, const Maker& maker, Sink sink, AlertSink alertSink)
    : kind_(kind), sink_(std::move(sink)), alertSink_(std::move(alertSink)), backend_(maker(*this)) {}

BackendSlot::~BackendSlot() {
    backend_->stop();
}

void BackendSlot::activate() {
    active_ = true;
    if (heldBack_) {
        sink_(*std::exchange(heldBack_, std::nullopt));
    }
    for (AlertSignal& signal : std::exchange(alertsHeldBack_, {})) {
        alertSink_(std::move(signal));
    }
}

void BackendSlot::hostChanged(HostImage image) {
    if (active_) {
        sink_(std::move(image));
    } else {
        heldBack_ = std::move(image);
    }
}

void BackendSlot::alert(AlertSignal signal) {
    if (active_) {
        alertSink_(std::move(signal));
    } else {
        alertsHeldBack_.push_back(std::move(signal));
    }
}

}  // namespace kx::agent
