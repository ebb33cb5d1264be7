#include "client/src/loop/Loop.h"

#include <malloc.h>
#include <pthread.h>
#include <csignal>

#include <boost/asio/post.hpp>
#include <utility>

namespace kx::client {

namespace {

// Blocks every signal while a thread is made, so that the new thread starts with all of them blocked: a stop
// signal must interrupt the program's main thread, never this one.
class AllSignalsBlocked {
public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

private:
    sigset_t before_{};
};

/// Buffers from this size on go back to the system when they are freed. Left to itself the allocator raises its
/// threshold with each one, up to 32 MiB, and then keeps as much on the loop thread's heap for good.
constexpr int kMappedBytes = 512 * 1024;

}  // namespace

Loop::Loop() : work_(context_.get_executor()) {}

Loop::~Loop() {
    stop();
    if (thread_.joinable()) {
        // The last reference was dropped on the loop's own thread, which is on its way out of run().
        thread_.detach();
    }
}

void Loop::start() {
    const std::lock_guard guard(mutex_);
    if (state_ != State::Made) {
        return;
    }
    mallopt(M_MMAP_THRESHOLD, kMappedBytes);
    const AllSignalsBlocked blocked;
    // The thread holds the loop, so that the io_context outlives run() whoever drops the last other reference.
    thread_ = std::thread([self = shared_from_this()] { self->run(); });
    threadId_ = thread_.get_id();
    state_ = State::Running;
}

void Loop::run() {
    context_.run();
}

void Loop::stop() {
    bool wasRunning = false;
    isStopping_ = true;
    {
        const std::lock_guard guard(mutex_);
        if (state_ != State::Stopped) {
            wasRunning = std::exchange(state_, State::Stopped) == State::Running;
            if (wasRunning) {
                boost::asio::post(context_, [this] { tellClients(); });
            }
            work_.reset();
        }
    }
    join();
}

void Loop::join() {
    std::thread thread;
    {
        const std::lock_guard guard(mutex_);
        if (thread_.get_id() == std::this_thread::get_id()) {
            return;
        }
        thread.swap(thread_);
    }
    if (thread.joinable()) {
        thread.join();
    }
}

void Loop::tellClients() {
    std::vector<std::weak_ptr<LoopClient>> clients;
    {
        const std::lock_guard guard(mutex_);
        clients.swap(clients_);
    }
    for (const auto& weak : clients) {
        if (const auto client = weak.lock()) {
            client->loopStopping();
        }
    }
}

bool Loop::post(std::function<void()> task) {
    const std::lock_guard guard(mutex_);
    if (state_ != State::Running) {
        return false;
    }
    boost::asio::post(context_, std::move(task));
    return true;
}

void Loop::attach(std::weak_ptr<LoopClient> client) {
    const std::lock_guard guard(mutex_);
    std::erase_if(clients_, [](const std::weak_ptr<LoopClient>& known) { return known.expired(); });
    clients_.push_back(std::move(client));
}

void Loop::setEventGate(boost::intrusive_ptr<KXLEventGatePrototype> gate) {
    const std::lock_guard guard(mutex_);
    eventGate_.swap(gate);
}

bool Loop::eventGateIsOpen() const {
    boost::intrusive_ptr<KXLEventGatePrototype> gate;
    {
        const std::lock_guard guard(mutex_);
        gate = eventGate_;
    }
    return !gate || gate->isOpen();
}

std::thread::id Loop::threadId() const {
    const std::lock_guard guard(mutex_);
    return threadId_;
}

}  // namespace kx::client
