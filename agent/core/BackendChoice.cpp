#include "agent/core/BackendChoice.h"

#include <filesystem>

#include "agent/backends/lxc/LxcBackend.h"
#include "agent/backends/simulated/SimulatedBackend.h"

namespace kx::agent {

BackendKind chooseBackend(const Config& config) {
    if (config.backend != BackendKind::Auto) {
        return config.backend;
    }
    std::error_code error;
    if (lxcHasContainers(config.lxcPath) || !std::filesystem::exists(config.inventory, error)) {
        return BackendKind::Lxc;
    }
    return BackendKind::Simulated;
}

std::unique_ptr<Backend> makeBackend(boost::asio::io_context& io, BackendKind kind, const Config& config,
                                     const std::string& machineId, BackendListener& listener) {
    if (kind == BackendKind::Simulated) {
        return makeSimulatedBackend(io, config.inventory, machineId, listener);
    }
    return makeLxcBackend(io, {config.lxcPath, config.stateDirectory, machineId, KX_VERSION}, listener);
}

bool differInBackend(BackendKind kind, const Config& one, const Config& other) {
    if (kind == BackendKind::Simulated) {
        return one.inventory != other.inventory;
    }
    return one.lxcPath != other.lxcPath || one.stateDirectory != other.stateDirectory;
}

}  // namespace kx::agent
