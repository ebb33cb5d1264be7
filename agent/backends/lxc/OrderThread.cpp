#include "agent/backends/lxc/OrderThread.h"

#include <sys/eventfd.h>

#include <chrono>
#include <exception>
#include <utility>

#include "agent/backends/lxc/Descriptors.h"
#include "agent/backends/lxc/SignalMask.h"

namespace kx::agent::lxc {
namespace {

/// Before something that failed for lack of memory is tried again.
constexpr std::chrono::milliseconds kAfterFailure{100};

}  // namespace

OrderThread::OrderThread() : ready_(makeEventDescriptor()) {}

OrderThread::~OrderThread() {
    ending_ = true;
    wake();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void OrderThread::start(std::function<void()> turn) {
    turn_ = std::move(turn);
    const AllSignalsBlocked blocked;
    thread_ = std::thread([this] { run(); });
}

void OrderThread::post(std::function<void()> order) {
    {
        const std::lock_guard lock(mutex_);
        orders_.push_back(std::move(order));
    }
    wake();
}

void OrderThread::wake() {
    ::eventfd_write(ready_.get(), 1);
}

void OrderThread::run() {
    while (!ending_) {
        try {
            obey();
            turn_();
        } catch (const std::exception&) {
            // Memory is all that can be lacking.
            std::this_thread::sleep_for(kAfterFailure);
        }
    }
}

void OrderThread::obey() {
    eventfd_t ignored = 0;
    ::eventfd_read(ready_.get(), &ignored);
    std::unique_lock lock(mutex_);
    while (!orders_.empty()) {
        // It stays the first while others are added, and where it fails it is tried again.
        const auto& order = orders_.front();
        lock.unlock();
        order();
        lock.lock();
        orders_.pop_front();
    }
}

}  // namespace kx::agent::lxc
