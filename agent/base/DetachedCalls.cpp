#include "agent/base/DetachedCalls.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "agent/base/OwnedDescriptor.h"
#include "agent/base/Worker.h"

namespace kx::agent {
namespace {

using Clock = std::chrono::steady_clock;

/// Threads that do work at a time, those that hang not counted: a disk serves few readers well.
constexpr std::size_t kUsualThreads = 4;

}  // namespace

/// What helper threads share with the owner; the last of them destroys it.
struct DetachedCalls::Shared : std::enable_shared_from_this<Shared> {
    explicit Shared(std::string threadName)
        : name(std::move(threadName)), ready(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (!ready) {
            throw std::runtime_error("eventfd");
        }
    }

    void addThread();
    void run();
    void makeCall(std::unique_lock<std::mutex>& lock);
    void waitForYoung(std::unique_lock<std::mutex>& lock, Clock::duration limit);
    std::size_t working() const;
    bool hasWork() const { return !queue.empty() && working() < kUsualThreads; }

    const std::string name;
    const OwnedDescriptor ready;

    std::mutex mutex;  ///< over all that follows, held for moments
    std::condition_variable changed;
    std::deque<std::pair<std::string, Call>> queue;
    std::map<std::string, Clock::time_point> begun;  ///< by key; in the queue: not yet
    std::vector<Finish> returned;
    std::size_t threads = 0;
    std::size_t idle = 0;
    bool ending = false;
};

/// How many threads are in calls that may yet return soon.
std::size_t DetachedCalls::Shared::working() const {
    const auto young = Clock::now() - kPatience;
    return static_cast<std::size_t>(std::count_if(begun.begin(), begun.end(), [&](const auto& one) {
        return one.second != Clock::time_point::max() && one.second > young;
    }));
}

/// There is always one that waits, so that it sees when others hang.
void DetachedCalls::Shared::addThread() {
    if (idle > 0 || threads >= kMaxThreads) {
        return;
    }
    try {
        startThread(name, [self = shared_from_this()] { self->run(); }).detach();
        ++threads;
        ++idle;
    } catch (const std::system_error&) {
        // Those that are there go on; the next call tries again.
        if (threads == 0) {
            throw;
        }
    }
}

void DetachedCalls::Shared::run() {
    std::unique_lock lock(mutex);
    while (!ending && idle <= kUsualThreads) {
        if (hasWork()) {
            makeCall(lock);
        } else if (queue.empty()) {
            changed.wait(lock);
        } else {
            changed.wait_for(lock, kPatience / 4);
        }
    }
    --idle;
    --threads;
}

void DetachedCalls::Shared::makeCall(std::unique_lock<std::mutex>& lock) {
    auto [key, call] = std::move(queue.front());
    queue.pop_front();
    begun[key] = Clock::now();
    --idle;
    addThread();
    lock.unlock();
    Finish finish = call();
    call = nullptr;
    lock.lock();
    ++idle;
    begun.erase(key);
    changed.notify_all();
    if (!ending) {
        returned.push_back(std::move(finish));
        ::eventfd_write(ready.get(), 1);
    }
}

/// Nobody tells when a call grows too old to be waited for.
void DetachedCalls::Shared::waitForYoung(std::unique_lock<std::mutex>& lock, Clock::duration limit) {
    const auto deadline = Clock::now() + limit;
    while ((!queue.empty() || working() > 0) && Clock::now() < deadline) {
        changed.wait_for(lock, kPatience / 10);
    }
}

DetachedCalls::DetachedCalls(const std::string& name) : shared_(std::make_shared<Shared>(name)) {
    const std::lock_guard lock(shared_->mutex);
    shared_->addThread();
}

DetachedCalls::~DetachedCalls() {
    std::unique_lock lock(shared_->mutex);
    shared_->ending = true;
    shared_->queue.clear();
    shared_->changed.notify_all();
    shared_->waitForYoung(lock, kPatience);
    shared_->returned.clear();
}

bool DetachedCalls::start(const std::string& key, Call call) {
    const std::lock_guard lock(shared_->mutex);
    if (!shared_->begun.try_emplace(key, Clock::time_point::max()).second) {
        return false;
    }
    shared_->queue.emplace_back(key, std::move(call));
    shared_->addThread();
    shared_->changed.notify_one();
    return true;
}

void DetachedCalls::finish() {
    eventfd_t ignored = 0;
    ::eventfd_read(shared_->ready.get(), &ignored);
    std::vector<Finish> returned;
    {
        const std::lock_guard lock(shared_->mutex);
        returned.swap(shared_->returned);
    }
    for (const Finish& finish : returned) {
        finish();
    }
}

void DetachedCalls::finishAll(std::chrono::milliseconds limit) {
    {
        std::unique_lock lock(shared_->mutex);
        shared_->waitForYoung(lock, limit);
    }
    finish();
}

std::chrono::milliseconds DetachedCalls::timeOf(const std::string& key) const {
    const std::lock_guard lock(shared_->mutex);
    const auto begun = shared_->begun.find(key);
    if (begun == shared_->begun.end() || begun->second == Clock::time_point::max()) {
        return std::chrono::milliseconds(0);
    }
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun->second);
}

int DetachedCalls::descriptor() const {
    return shared_->ready.get();
}

}  // namespace kx::agent
