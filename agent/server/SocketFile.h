// The agent's listening socket and the file it is reached by. Main thread only.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "agent/base/OwnedDescriptor.h"

namespace kx::agent {

/// Listens from its construction on. The file goes with the object, unless somebody has put another in its place.
class SocketFile {
public:
    /// @brief Makes the folder if it is missing (0755) and the socket in it (0660), which replaces one that nobody
    /// listens on any more. Beside it an empty file PATH.lock is left (0600), by which agents start one at a time.
    /// @param path absolute
    /// @param group owner of the file beside root; without one it stays with the process's own group
    /// @throws std::runtime_error, naming the path, when another agent listens there, something else than a socket is
    /// in the way, or the system refuses
    SocketFile(std::string path, std::optional<gid_t> group);
    ~SocketFile();
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

    const std::string& path() const { return path_; }

    /// @return whether there is nothing at the path any more: somebody has removed the file
    bool isGone() const;

    /// @brief Hands the listening descriptor over, once.
    int releaseListener() { return listener_.release(); }

private:
    void bindPrivately();
    void openToGroup(std::optional<gid_t> group) const;

    std::string path_;
    OwnedDescriptor listener_;
    dev_t device_ = 0;  ///< with inode_: our file, told from a later one of the same name
    ino_t inode_ = 0;
};

}  // namespace kx::agent
