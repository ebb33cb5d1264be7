// What tells this machine from others. Every identifier of an environment is made from it, so it must stay the same
// for as long as the machine lives. Called once, at the start, on the main thread.
#pragma once

#include <optional>
#include <string>

namespace kx::agent {

/// Where the system keeps its own id, see machine-id(5).
inline constexpr const char* kSystemMachineIdFile = "/etc/machine-id";

/// @brief The system's machine id; where it has none, one made at random at the first call and kept from then on.
/// @param systemFile usually kSystemMachineIdFile; a missing, empty or malformed one counts as none
/// @param stateDirectory where a made one is kept, as "machine-id"; made when it does not exist
/// @return 32 lower-case hexadecimal characters
/// @throws std::runtime_error when the system has no id and a made one cannot be kept, or the kept one is damaged:
/// identifiers that change with a start would make every client lose its place
std::string machineId(const std::string& systemFile, const std::string& stateDirectory);

/// @brief As machineId(), but writes nothing.
/// @return nothing when one would have to be made
/// @throws std::runtime_error when the kept one is damaged
std::optional<std::string> knownMachineId(const std::string& systemFile, const std::string& stateDirectory);

}  // namespace kx::agent
