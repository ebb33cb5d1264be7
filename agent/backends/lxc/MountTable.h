// What is mounted where in a process's mount namespace (proc(5), /proc/PID/mountinfo). A value; reading it takes a
// millisecond where there are thousands of mounts. Any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kx::agent::lxc {

/// One mount.
struct Mount {
    std::uint64_t id = 0;
    std::string root;  ///< the folder of the file system that is mounted: "/" where it is all of it
    std::string type;  ///< of the file system: "ext4"

    /// @return whether what the file system has in use is all below this mount: it is mounted whole, and it is a file
    /// system by itself, on a device or in memory, and not a view of others
    bool isWholeFileSystem(dev_t device) const;
};

/// All mounts of one namespace.
class MountTable {
public:
    /// @param text content of mountinfo; lines that make no sense are passed over
    explicit MountTable(std::string_view text);

    /// @param process "self", or the number of a process, as in /proc
    static MountTable of(const std::string& process);

    /// @return null when there is no such mount
    const Mount* find(std::uint64_t id) const;

    /// @return the mount that is seen at "/"; null when there is none
    const Mount* root() const { return root_ ? find(*root_) : nullptr; }

private:
    std::unordered_map<std::uint64_t, Mount> mounts_;
    std::optional<std::uint64_t> root_;
};

}  // namespace kx::agent::lxc
