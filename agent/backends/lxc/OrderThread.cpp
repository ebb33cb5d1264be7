#include "agent/backends/lxc/OrderThread.h"

#include <sys/eventfd.h>

#include <utility>

#include "agent/backends/lxc/Descriptors.h"

namespace kx::agent::lxc {

OrderThread::OrderThread(std::string name) : ready_(makeEventDescriptor()), thread_(std::move(name)) {}

OrderThread::~OrderThread() {
    ending_ = true;
    wake();
    thread_.join();
}

void OrderThread::start(std::function<void()> pass) {
    pass_ = std::move(pass);
    thread_.start([this] { run(); });
}

void OrderThread::post(std::function<void()> task) {
    {
        const std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    wake();
}

void OrderThread::wake() {
    ::eventfd_write(ready_.get(), 1);
}

void OrderThread::run() {
    while (!ending_) {
        runTasks();
        pass_();
    }
}

void OrderThread::runTasks() {
    eventfd_t ignored = 0;
    ::eventfd_read(ready_.get(), &ignored);
    std::deque<std::function<void()>> tasks;
    {
        const std::lock_guard lock(mutex_);
        tasks.swap(tasks_);
    }
    for (; !tasks.empty() && !ending_; tasks.pop_front()) {
        tasks.front()();
    }
}

}  // namespace kx::agent::lxc
