// Which backend a configuration means, and how it is made. The one place that knows all backends.
// Main thread only.
#pragma once

#include <boost/asio/io_context.hpp>
#include <memory>
#include <string>

#include "agent/backends/Backend.h"
#include "agent/core/Config.h"

namespace kx::agent {

/// @brief Turns Auto into a backend: real containers where LXC has any, else the described host where there is a
/// description, else LXC, whose first container may come later.
/// @return Lxc or Simulated
BackendKind chooseBackend(const Config& config);

/// @brief Makes a backend, not yet started.
/// @param kind Lxc or Simulated
/// @param machineId see MachineId.h
/// @param io must outlive the backend
/// @param listener must outlive the backend's stop()
std::unique_ptr<Backend> makeBackend(boost::asio::io_context& io, BackendKind kind, const Config& config,
                                     const std::string& machineId, BackendListener& listener);

/// @brief Whether two configurations mean different sources of environments.
/// @param kind what both were found to mean
bool differInBackend(BackendKind kind, const Config& one, const Config& other);

}  // namespace kx::agent
