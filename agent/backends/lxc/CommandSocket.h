// The socket on which a container's monitor answers: an abstract unix socket, there as long as the monitor runs.
//
// Looking for it in the kernel's list tells for all containers at once which may be running, without asking any.
// It is visible only in the network namespace in which the container was started.
#pragma once

#include <set>
#include <string>
#include <string_view>

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

/// Who is behind a command socket.
enum class Monitor {
    None,       ///< nobody: the container is stopped
    Reachable,  ///< it may be asked
    Full,       ///< it has not taken up connections for long; one more would wait for it without limit
};

/// @brief Tries to connect, and hangs up again.
/// @param socketName see commandSocketName()
Monitor monitorBehind(const std::string& socketName);

}  // namespace kx::agent::lxc
