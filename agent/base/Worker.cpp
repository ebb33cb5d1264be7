#include "agent/base/Worker.h"

#include <fmt/format.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <set>
#include <utility>

#include "agent/base/Log.h"

namespace kx::agent {
namespace {

constexpr std::size_t kMaxThreadName = 15;

thread_local std::atomic<std::int64_t>* own_working_since = nullptr;

struct Registry {
    std::mutex mutex;
    std::set<const Worker*> workers;
};

Registry& registry() {
    static Registry one;
    return one;
}

std::int64_t nowMs() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/// Threads inherit the signal mask of the thread that makes them.
class AllSignalsBlocked {
public:
    AllSignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

private:
    sigset_t before_{};
};

[[noreturn]] void endProcess(const std::string& thread, const char* why) {
    log::error(fmt::format("thread {} failed: {}; the agent ends and is to be started again", thread, why));
    // Not exit(): destructors of static objects would run beside threads that use them.
    ::_exit(EXIT_FAILURE);
}

void runThread(const std::string& name, const std::function<void()>& body) {
    ::pthread_setname_np(::pthread_self(), name.substr(0, kMaxThreadName).c_str());
    try {
        body();
    } catch (const std::exception& error) {
        endProcess(name, error.what());
    } catch (...) {
        endProcess(name, "unknown exception");
    }
}

}  // namespace

std::thread startThread(std::string name, std::function<void()> body) {
    const AllSignalsBlocked blocked;
    return std::thread([name = std::move(name), body = std::move(body)] { runThread(name, body); });
}

Worker::Worker(std::string name) : name_(std::move(name)) {
    const std::lock_guard lock(registry().mutex);
    registry().workers.insert(this);
}

Worker::~Worker() {
    join();
    const std::lock_guard lock(registry().mutex);
    registry().workers.erase(this);
}

void Worker::start(std::function<void()> body) {
    thread_ = startThread(name_, [this, body = std::move(body)] {
        own_working_since = &workingSinceMs_;
        workingSinceMs_ = nowMs();
        body();
        workingSinceMs_ = 0;
    });
}

void Worker::join() {
    if (thread_.joinable()) {
        thread_.join();
    }
}

Worker::Pause::Pause() {
    if (own_working_since != nullptr) {
        *own_working_since = 0;
    }
}

Worker::Pause::~Pause() {
    if (own_working_since != nullptr) {
        *own_working_since = nowMs();
    }
}

std::optional<Worker::Busy> Worker::busiest() {
    std::optional<Busy> result;
    const std::int64_t now = nowMs();
    const std::lock_guard lock(registry().mutex);
    for (const Worker* worker : registry().workers) {
        const std::int64_t since = worker->workingSinceMs_;
        const std::chrono::milliseconds time(now - since);
        if (since != 0 && (!result || time > result->time)) {
            result = Busy{worker->name_, time};
        }
    }
    return result;
}

}  // namespace kx::agent
