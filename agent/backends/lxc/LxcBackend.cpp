#include "agent/backends/lxc/LxcBackend.h"

#include <boost/asio/post.hpp>
#include <filesystem>
#include <utility>

#include "agent/backends/lxc/CounterThread.h"
#include "agent/backends/lxc/LxcWatcher.h"
#include "agent/backends/lxc/RunningResources.h"

namespace kx::agent {
namespace {

/// The backend as its owner sees it. Main thread; the watcher has the worker.
class LxcBackend : public Backend {
public:
    LxcBackend(boost::asio::io_context& io, LxcSettings settings, BackendListener& listener, lxc::LogSink log)
        : io_(io),
          settings_(std::move(settings)),
          log_(std::move(log)),
          delivery_(std::make_shared<Delivery>(Delivery{&listener})) {}

    ~LxcBackend() override { stop(); }

    void start() override {
        // An image that a stopped run has posted must not arrive in the next one.
        delivery_ = std::make_shared<Delivery>(Delivery{delivery_->listener});
        delivery_->open = true;
        counters_ = std::make_unique<lxc::CounterThread>(log_);
        resources_ =
            std::make_unique<lxc::RunningResources>(Eid::fromName(settings_.machineId, kHostName), alertSink(), log_);
        watcher_ = std::make_unique<lxc::LxcWatcher>(
            settings_, sink(),
            [counters = counters_.get(), resources = resources_.get()](std::vector<lxc::CounterTarget> running) {
                resources->update(running);
                counters->setTargets(std::move(running));
            },
            log_);
    }

    void stop() override {
        delivery_->open = false;
        watcher_.reset();
        resources_.reset();
        counters_.reset();
    }

    void readCounters(const CounterSink& sink) override {
        if (!counters_) {
            sink({std::chrono::steady_clock::now(), {}});
            return;
        }
        counters_->read([&io = io_, delivery = delivery_, sink](CounterImage image) {
            boost::asio::post(io, [delivery, sink, image = std::move(image)]() mutable {
                if (delivery->open) {
                    sink(std::move(image));
                }
            });
        });
    }

    Freshness freshness() const override { return watcher_ ? watcher_->freshness() : Freshness(); }

    std::string name() const override { return "lxc"; }

private:
    /// Outlives the backend in images that are still on their way. Main thread only.
    struct Delivery {
        BackendListener* listener;
        bool open = false;
    };

    lxc::ContainersSink sink() {
        return
            [&io = io_, delivery = delivery_, version = settings_.productVersion](std::vector<Environment> containers) {
                HostImage image{std::move(containers), standardVocabularies(version)};
                boost::asio::post(io, [delivery, image = std::move(image)]() mutable {
                    if (delivery->open) {
                        delivery->listener->hostChanged(std::move(image));
                    }
                });
            };
    }

    lxc::SignalSink alertSink() {
        return [&io = io_, delivery = delivery_](AlertSignal signal) {
            boost::asio::post(io, [delivery, signal = std::move(signal)]() mutable {
                if (delivery->open) {
                    delivery->listener->alert(std::move(signal));
                }
            });
        };
    }

    boost::asio::io_context& io_;
    const LxcSettings settings_;
    const lxc::LogSink log_;
    std::shared_ptr<Delivery> delivery_;
    std::unique_ptr<lxc::CounterThread> counters_;  ///< these two outlive the watcher, which tells them who runs
    std::unique_ptr<lxc::RunningResources> resources_;
    std::unique_ptr<lxc::LxcWatcher> watcher_;
};

}  // namespace

bool lxcHasContainers(const std::string& path) {
    std::error_code error;
    std::filesystem::directory_iterator folder(path, error);
    for (; !error && folder != std::filesystem::directory_iterator(); folder.increment(error)) {
        std::error_code missing;
        const std::string name = folder->path().filename();
        if (name.front() != '.' && std::filesystem::exists(folder->path() / "config", missing)) {
            return true;
        }
    }
    return false;
}

std::unique_ptr<Backend> makeLxcBackend(boost::asio::io_context& io, LxcSettings settings, BackendListener& listener,
                                        lxc::LogSink log) {
    return std::make_unique<LxcBackend>(io, std::move(settings), listener, std::move(log));
}

}  // namespace kx::agent
