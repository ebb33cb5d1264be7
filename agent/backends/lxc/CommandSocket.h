// The socket on which a container's monitor answers: an abstract unix socket, there as long as the monitor runs.
//
// Looking for it in the kernel's list tells for all containers at once which may be running, without asking any.
// It is visible only in the network namespace in which the container was started.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <string_view>

#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {

/// @brief The socket's name, without the leading zero byte that makes it abstract.
/// @param path LXC's path, the very text the container was started with
/// @param name the container's name
/// @return "<path>/<name>/command", or liblxc's hashed form where that does not fit a socket address
std::string commandSocketName(const std::string& path, const std::string& name);

/// @brief The names of all command sockets in this thread's network namespace.
/// @param unixSockets content of /proc/thread-self/net/unix
/// @return names as commandSocketName() gives them, those of other paths too
std::set<std::string, std::less<>> commandSocketsIn(std::string_view unixSockets);

/// @brief Reads the kernel's list and takes the command sockets out.
std::set<std::string, std::less<>> presentCommandSockets();

/// A connection to a monitor on which nothing is asked. A monitor that works takes it up and closes it, which makes it
/// readable; one that runs its start hooks, is stopped or hangs does not.
struct MonitorConnection {
    bool isFull = false;     ///< the monitor has not taken up connections for long; one more would wait without limit
    OwnedDescriptor socket;  ///< none: the above, or there is no monitor
    uid_t owner = 0;         ///< whose process listens; any local user may take the name of a stopped container
};

/// @brief Connects, without waiting.
/// @param socketName see commandSocketName()
MonitorConnection connectToMonitor(const std::string& socketName);

}  // namespace kx::agent::lxc
