#include "agent/backends/lxc/OrderQueue.h"

#include <sys/eventfd.h>

#include <utility>

#include "agent/backends/lxc/Descriptors.h"

namespace kx::agent::lxc {

OrderQueue::OrderQueue() : ready_(makeEventDescriptor()) {}

void OrderQueue::post(std::function<void()> order) {
    {
        const std::lock_guard lock(mutex_);
        orders_.push_back(std::move(order));
    }
    wake();
}

void OrderQueue::wake() {
    ::eventfd_write(ready_.get(), 1);
}

void OrderQueue::obey() {
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
