#include "agent/backends/simulated/SimulatedBackend.h"

#include <fmt/format.h>

#include <functional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "agent/backends/simulated/FileWatch.h"
#include "agent/backends/simulated/SimulatedCounters.h"
#include "agent/backends/simulated/SimulatedHost.h"
#include "agent/base/Log.h"

namespace kx::agent {
namespace {

using simulated::SimulatedHost;

class SimulatedBackend final : public Backend {
public:
    SimulatedBackend(boost::asio::io_context& io, std::string path, std::string machineId, BackendListener& listener)
        : io_(io), path_(std::move(path)), machineId_(std::move(machineId)), listener_(listener) {}

    void start() override {
        // Watched before it is read: a change between the two is noticed.
        auto watch = std::make_unique<simulated::FileWatch>(io_, path_, [this] { fileChanged(); });
        auto text = simulated::readInventoryText(path_);
        if (const auto* error = std::get_if<InventoryError>(&text)) {
            throw std::runtime_error(describe(path_, *error));
        }
        lastRead_ = std::hash<std::string>()(std::get<std::string>(text));
        auto host = simulated::hostOfText(std::get<std::string>(text), machineId_);
        if (const auto* error = std::get_if<InventoryError>(&host)) {
            throw std::runtime_error(describe(path_, *error));
        }
        watch_ = std::move(watch);
        deliver(std::move(std::get<SimulatedHost>(host)));
    }

    void stop() override { watch_.reset(); }

    std::string name() const override { return "simulated"; }

    bool isDescribed() const override { return true; }

    void readCounters(const CounterSink& sink) override {
        sink(simulated::readCounters(counters_, std::chrono::steady_clock::now() - countersFrom_));
    }

private:
    void fileChanged() {
        auto text = simulated::readInventoryText(path_);
        if (const auto* error = std::get_if<InventoryError>(&text)) {
            lastRead_.reset();
            refuse(*error);
            return;
        }
        // Reports may be of changes that were undone, or that touched the file only.
        const std::size_t hash = std::hash<std::string>()(std::get<std::string>(text));
        if (lastRead_ == hash) {
            return;
        }
        lastRead_ = hash;
        take(simulated::hostOfText(std::get<std::string>(text), machineId_));
    }

    void take(std::variant<SimulatedHost, InventoryError> host) {
        if (const auto* error = std::get_if<InventoryError>(&host)) {
            refuse(*error);
            return;
        }
        lastError_.clear();
        auto& good = std::get<SimulatedHost>(host);
        log::info(fmt::format("{}: read again, it describes {} environments", path_, good.image.environments.size()));
        deliver(std::move(good));
    }

    void refuse(const InventoryError& error) {
        std::string line = describe(path_, error);
        if (line != lastError_) {
            log::error(line + "; the last good one stays published");
        }
        lastError_ = std::move(line);
    }

    void deliver(SimulatedHost host) {
        counters_ = std::move(host.counters);
        countersFrom_ = std::chrono::steady_clock::now();
        listener_.hostChanged(std::move(host.image));
    }

    boost::asio::io_context& io_;
    const std::string path_;
    const std::string machineId_;
    BackendListener& listener_;
    std::unique_ptr<simulated::FileWatch> watch_;
    std::optional<std::size_t> lastRead_;  ///< hash of the text read last, good or not; absent when it was unreadable
    std::string lastError_;                ///< logged last; empty when the file is good
    std::map<Eid, simulated::Counters> counters_;
    std::chrono::steady_clock::time_point countersFrom_;  ///< when the file was read: counters grow from then on
};

}  // namespace

std::optional<InventoryError> checkInventory(const std::string& path, const std::string& machineId) {
    auto text = simulated::readInventoryText(path);
    if (auto* error = std::get_if<InventoryError>(&text)) {
        return std::move(*error);
    }
    auto host = simulated::hostOfText(std::get<std::string>(text), machineId);
    if (auto* error = std::get_if<InventoryError>(&host)) {
        return std::move(*error);
    }
    return std::nullopt;
}

std::unique_ptr<Backend> makeSimulatedBackend(boost::asio::io_context& io, std::string inventoryPath,
                                              std::string machineId, BackendListener& listener) {
    return std::make_unique<SimulatedBackend>(io, std::move(inventoryPath), std::move(machineId), listener);
}

}  // namespace kx::agent
