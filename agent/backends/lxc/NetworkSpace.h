// Network namespaces of other processes, and visits to them (setns(2)).
//
// A visit moves the calling thread alone. Nothing but sockets is to be made there: whatever the thread opens or starts
// meanwhile belongs to the other namespace. A descriptor of a namespace, or a socket made in it, keeps it alive.
#pragma once

#include <sys/types.h>

#include <functional>

#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {

/// Tells one network namespace from another, as long as something keeps it alive.
struct NetworkSpaceId {
    dev_t device = 0;
    ino_t inode = 0;  ///< 0: none
    bool operator==(const NetworkSpaceId&) const = default;
};

/// @return the namespace a process is in; that with inode 0 when there is no such process. Any thread.
NetworkSpaceId networkSpaceOf(pid_t pid);

/// @return a descriptor of the namespace a process is in; none, with errno set, when it cannot be had. Any thread.
OwnedDescriptor openNetworkSpace(pid_t pid);

/// @param space descriptor of a namespace
NetworkSpaceId idOf(int space);

/// Takes one thread into other namespaces and back. Made anywhere, used by that one thread.
class NetworkTraveller {
public:
    /// @brief Remembers the calling thread's namespace as home.
    /// @throws std::runtime_error when it cannot be had
    NetworkTraveller();

    /// @brief Does something inside a namespace, and comes home.
    /// @param space descriptor of the namespace
    /// @return 0; else the error number why it could not be entered, and the work was not done
    int inside(int space, const std::function<void()>& work);

    /// @return whether a namespace is the host's, not a container's: this one's home, or that of the first process
    bool isHost(const NetworkSpaceId& space) const { return space == homeId_ || space == firstId_; }

    /// @brief Comes home if the last visit could not: the kernel may be out of memory for a moment.
    /// @return whether the thread is at home
    bool comeHome();

private:
    OwnedDescriptor home_;
    NetworkSpaceId homeId_;
    NetworkSpaceId firstId_;
    bool away_ = false;
};

}  // namespace kx::agent::lxc
