// The text of an alert out of a file. Main thread only.
#pragma once

#include <cstddef>
#include <string>

namespace kx::ctl {

/// The most that is read, in bytes: a text of half a frame. The agent says by itself that it takes less.
inline constexpr std::size_t kMaxAlertFileBytes = std::size_t{8} * 1024 * 1024;

/// @brief Reads all of a file, byte for byte.
/// @param path "-": standard input
/// @throws Failure of wrong usage when it cannot be read or is too long
std::string readAlertText(const std::string& path);

}  // namespace kx::ctl
