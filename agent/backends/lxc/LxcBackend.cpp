#include "agent/backends/lxc/LxcBackend.h"

#include <boost/asio/post.hpp>
#include <filesystem>
#include <utility>

#include "agent/backends/lxc/LxcLog.h"
#include "agent/backends/lxc/LxcWatcher.h"

namespace kx::agent {
namespace {

/// The backend as its owner sees it. Main thread; the watcher has the worker.
class LxcBackend : public Backend {
public:
    LxcBackend(boost::asio::io_context& io, LxcSettings settings, BackendListener& listener)
        : io_(io), settings_(std::move(settings)), delivery_(std::make_shared<Delivery>(Delivery{&listener})) {}

    ~LxcBackend() override { stop(); }

    void start() override {
        // An image that a stopped run has posted must not arrive in the next one.
        delivery_ = std::make_shared<Delivery>(Delivery{delivery_->listener});
        delivery_->open = true;
        watcher_ = std::make_unique<lxc::LxcWatcher>(settings_, sink(), lxc::agentLog());
    }

    void stop() override {
        delivery_->open = false;
        watcher_.reset();
    }

    std::string name() const override { return "lxc"; }

private:
    /// Outlives the backend in images that are still on their way. Main thread only.
    struct Delivery {
        BackendListener* listener;
        bool open = false;
    };

    lxc::ContainersSink sink() {
        return [&io = io_, delivery = delivery_](std::vector<Environment> containers) {
            HostImage image{std::move(containers), standardVocabularies(std::nullopt)};
            boost::asio::post(io, [delivery, image = std::move(image)]() mutable {
                if (delivery->open) {
                    delivery->listener->hostChanged(std::move(image));
                }
            });
        };
    }

    boost::asio::io_context& io_;
    const LxcSettings settings_;
    std::shared_ptr<Delivery> delivery_;
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

std::unique_ptr<Backend> makeLxcBackend(boost::asio::io_context& io, LxcSettings settings, BackendListener& listener) {
    return std::make_unique<LxcBackend>(io, std::move(settings), listener);
}

}  // namespace kx::agent
