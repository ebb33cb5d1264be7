// The operating system of a container, from the os-release file inside its root file system.
//
// The file belongs to the container's owner and is not trusted. Plain functions, any thread.
#pragma once

#include <optional>
#include <string_view>

#include "agent/backends/lxc/RootFile.h"
#include "agent/inventory/Environment.h"

namespace kx::agent::lxc {

/// Longest os-release read; real ones have less than 1 KiB.
inline constexpr std::size_t kMaxOsReleaseBytes = std::size_t{64} * 1024;

/// Longest value published; a longer one is cut.
inline constexpr std::size_t kMaxOsValueBytes = 255;

/// @brief Takes ID and VERSION_ID out of an os-release text (os-release(5): shell-like assignments, values bare or
/// in single or double quotes, the last assignment counts, lines that make no sense are passed over).
/// @return nothing when there is no ID or it is empty; a missing VERSION_ID (a rolling release) gives an empty version
std::optional<Template> parseOsRelease(std::string_view text);

/// What was found in a root file system.
struct OsReleaseFile {
    std::optional<Template> os;
    FileStamp stamp;  ///< of the file looked at; size -1: none
};

/// @brief Reads etc/os-release, or usr/lib/os-release where the first is missing.
/// @param root descriptor of the root file system's folder
/// @param bounds Bounds::Root or Bounds::RootMount
OsReleaseFile readOsRelease(int root, Bounds bounds);

/// @return the stamp of the file that readOsRelease() would read
FileStamp osReleaseStamp(int root, Bounds bounds);

}  // namespace kx::agent::lxc
