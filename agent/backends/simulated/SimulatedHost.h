// From what an inventory file says to what the agent publishes. Plain functions and values, no thread of their own.
#pragma once

#include <map>
#include <string>
#include <variant>

#include "agent/backends/Backend.h"
#include "agent/backends/simulated/InventoryError.h"
#include "agent/backends/simulated/InventoryFile.h"

namespace kx::agent::simulated {

/// The longest file read: some ten thousand environments with long texts.
inline constexpr std::size_t kMaxFileBytes = std::size_t{64} * 1024 * 1024;

/// A described host.
struct SimulatedHost {
    HostImage image;
    std::map<Eid, Counters> counters;  ///< of the environments that have any
};

/// @brief Gives every environment its identifier, adds the made-up ones and fits in the described vocabulary.
/// An identifier that the file leaves out is made from "simulated/NAME", with "#2", "#3" ... appended for the second,
/// third ... environment of that name, so that it stays the same while the file's order of them does.
/// @param file consumed
/// @param machineId what tells this machine from others
/// @return the host, or where an identifier is used a second time, the host's own included
std::variant<SimulatedHost, InventoryError> makeHost(InventoryFile file, const std::string& machineId);

/// @brief Reads a whole file, whatever is in it.
/// @param path a regular file, or a link to one; a device or a pipe is refused without waiting for it
/// @return its bytes, or why it cannot be read
std::variant<std::string, InventoryError> readInventoryText(const std::string& path);

/// @brief Parses a text and makes its host.
std::variant<SimulatedHost, InventoryError> hostOfText(const std::string& text, const std::string& machineId);

}  // namespace kx::agent::simulated
