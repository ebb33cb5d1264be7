#include "agent/backends/lxc/CounterThread.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

namespace kx::agent::lxc {
namespace {

/// For all quotas to be read; those of a file system that does not answer are not waited for so long.
constexpr std::chrono::milliseconds kQuotaLimit{1000};

}  // namespace

CounterThread::CounterThread(LogSink log)
    : network_(log),
      quota_(std::move(log)),
      targets_(std::make_shared<const std::vector<CounterTarget>>()),
      thread_("counters") {
    thread_.start([this] { run(); });
}

CounterThread::~CounterThread() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    changed_.notify_one();
    thread_.join();
}

void CounterThread::setTargets(std::vector<CounterTarget> targets) {
    auto fresh = std::make_shared<const std::vector<CounterTarget>>(std::move(targets));
    const std::lock_guard lock(mutex_);
    targets_ = std::move(fresh);
}

void CounterThread::read(CounterSink sink) {
    {
        const std::lock_guard lock(mutex_);
        sinks_.push_back(std::move(sink));
    }
    changed_.notify_one();
}

void CounterThread::run() {
    std::unique_lock lock(mutex_);
    while (true) {
        {
            const Worker::Pause pause;
            changed_.wait(lock, [this] { return ending_ || !sinks_.empty(); });
        }
        if (ending_) {
            return;
        }
        const std::vector<CounterSink> sinks = std::exchange(sinks_, {});
        const Targets targets = targets_;
        lock.unlock();
        answer(*targets, sinks);
        lock.lock();
    }
}

void CounterThread::answer(const std::vector<CounterTarget>& targets, const std::vector<CounterSink>& sinks) {
    if (const auto image = readAll(targets)) {
        for (const CounterSink& sink : sinks) {
            sink(*image);
        }
    }
}

/// @return nothing: this object is ending
std::optional<CounterImage> CounterThread::readAll(const std::vector<CounterTarget>& targets) {
    std::vector<const CounterTarget*> running;
    quota_.start(targets);
    for (const CounterTarget& target : targets) {
        if (isEnding()) {
            return std::nullopt;
        }
        // One that has ended reports nothing.
        if (network_.read(target)) {
            running.push_back(&target);
        }
    }
    quota_.finish(kQuotaLimit);
    for (const CounterTarget* target : running) {
        quota_.add(*target);
    }
    CounterImage image{std::chrono::steady_clock::now(), network_.take()};
    std::vector<CounterTable> quota = quota_.take();
    std::move(quota.begin(), quota.end(), std::back_inserter(image.tables));
    return image;
}

bool CounterThread::isEnding() {
    const std::lock_guard lock(mutex_);
    return ending_;
}

}  // namespace kx::agent::lxc
