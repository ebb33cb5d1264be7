// Where a container's root file system is, from its configuration. Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kx::agent::lxc {

/// @brief Takes the folder out of a `lxc.rootfs.path`: "dir:/x", "btrfs:/x" or just "/x".
/// An overlay, a volume, an image or a block device is a folder only while the container runs.
/// @param value the value as configured
/// @return the absolute folder; nothing when the root file system is not a folder of the host
std::optional<std::string> rootfsFolder(std::string_view value);

}  // namespace kx::agent::lxc
