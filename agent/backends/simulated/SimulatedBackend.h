// The backend of a described host: an inventory file says what there is, and is read again when it changes.
//
// For trying out, for tests and for load: what the file says is published, odd or wrong values too.
//
// Threads: none of its own. Everything here, reading the file included, runs on the agent's main thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <memory>
#include <optional>
#include <string>

#include "agent/backends/Backend.h"
#include "agent/backends/simulated/InventoryError.h"

namespace kx::agent {

/// @brief Reads an inventory file as the backend does and forgets what it says.
/// @param path the file
/// @param machineId what tells this machine from others; identifiers that the file leaves out are made from it
/// @return the first error; nothing when the file is good
std::optional<InventoryError> checkInventory(const std::string& path, const std::string& machineId);

/// @brief Makes the backend; nothing is read before its start().
/// start() delivers the first image before it returns. It throws std::runtime_error, worded
/// "FILE:LINE:COLUMN: message", when the file is missing or wrong. Later the file may be changed in place, be replaced
/// by rename, or be a symbolic link that is turned elsewhere; a wrong file is logged in one line and the last good one
/// stays published.
/// @param io runs on the main thread; must outlive the backend
/// @param inventoryPath the file; a relative path is taken from the folder the process is in at start()
/// @param machineId what tells this machine from others
/// @param listener must outlive the backend's stop()
std::unique_ptr<Backend> makeSimulatedBackend(boost::asio::io_context& io, std::string inventoryPath,
                                              std::string machineId, BackendListener& listener);

}  // namespace kx::agent
